#include "core/linked_list.h"

#include <cstdlib>

#include "core/logger.h"

namespace {

// New zeroed entry holding `item`, or null after logging `failure`.
ListEntry* new_entry(void* item, const char* failure) {
    auto* entry = static_cast<ListEntry*>(calloc(1, sizeof(ListEntry)));
    if (entry == nullptr) {
        Logger.fatal("%s", failure);
        return nullptr;
    }
    entry->item = item;
    return entry;
}

// Empty list, or a list of one entry when `first_item` is not null.
List* list_create(void* first_item) {
    auto* list = static_cast<List*>(calloc(1, sizeof(List)));
    if (list == nullptr) {
        Logger.fatal("Unable to allocate memory for linked list.");
        return nullptr;
    }
    if (first_item != nullptr) {
        ListEntry* entry =
            new_entry(first_item, "Unable to allocate memory for linked list entry.");
        if (entry == nullptr) {
            free(list);
            return nullptr;
        }
        list->head = entry;
        list->tail = entry;
    }
    return list;
}

// Appends at the tail; the list keeps the entry until `remove`/`pop_first`/`free`.
ListEntry* list_add(List* list, void* item) {
    if (list == nullptr) {
        Logger.error("Unable to add an item to a missing linked list");
        return nullptr;
    }
    ListEntry* entry = new_entry(item, "Unable to allocate memory for linked list entry");
    if (entry == nullptr) {
        return nullptr;
    }
    if (list->tail != nullptr) {
        list->tail->next = entry;
        entry->prev = list->tail;
    }
    if (list->head == nullptr) {
        list->head = entry;
    }
    list->tail = entry;
    return entry;
}

// Unlinks `entry` without freeing it. Removing the head leaves the new head's
// `prev` on the removed entry (callers rely on `pop_first` for a clean head).
void list_remove(List* list, ListEntry* entry, ItemDestructor destructor) {
    if (list == nullptr || entry == nullptr) {
        return;
    }
    const bool was_head = entry == list->head;
    if (was_head) {
        list->head = entry->next;
    } else {
        entry->prev->next = entry->next;
        if (entry->next != nullptr) {
            entry->next->prev = entry->prev;
        }
    }
    if (entry == list->tail) {
        // A head has nothing before it, whatever a stale `prev` says.
        list->tail = was_head ? nullptr : entry->prev;
    }
    if (entry->item != nullptr && destructor != nullptr) {
        destructor(entry->item);
    }
}

// Unlinks the head; its own links stay as they were. The caller frees it.
ListEntry* list_pop_first(List* list) {
    if (list == nullptr || list->head == nullptr) {
        return nullptr;
    }
    ListEntry* entry = list->head;
    list->head = entry->next;
    if (list->head != nullptr) {
        list->head->prev = nullptr;
    } else {
        list->tail = nullptr;
    }
    return entry;
}

// Visits head to tail; `next` is read after the call, so `function` may
// unlink the entry but must not free it.
void list_for_each(List* list, ListVisitor function, void* context) {
    for (ListEntry* entry = list->head; entry != nullptr; entry = entry->next) {
        function(entry, context);
    }
}

// First entry accepted by `predicate`, or null.
ListEntry* list_find(List* list, ListPredicate predicate, void* context) {
    if (list == nullptr) {
        return nullptr;
    }
    for (ListEntry* entry = list->head; entry != nullptr; entry = entry->next) {
        if (predicate(entry, context) != 0) {
            return entry;
        }
    }
    return nullptr;
}

// Entry count, by walking.
uint64_t list_size(List* list) {
    uint64_t count = 0;
    if (list != nullptr) {
        for (const ListEntry* entry = list->head; entry != nullptr; entry = entry->next) {
            ++count;
        }
    }
    return count;
}

// Frees entries head to tail (items through `destructor` when given), then the list.
void list_free(List* list, ItemDestructor destructor) {
    if (list == nullptr) {
        return;
    }
    ListEntry* entry = list->head;
    while (entry != nullptr) {
        ListEntry* next = entry->next;
        if (entry->item != nullptr && destructor != nullptr) {
            destructor(entry->item);
        }
        free(entry);
        entry = next;
    }
    free(list);
}

}  // namespace

const LinkedListModule LinkedList = {
    .create = list_create,
    .add = list_add,
    .remove = list_remove,
    .pop_first = list_pop_first,
    .for_each = list_for_each,
    .find = list_find,
    .size = list_size,
    .free = list_free,
};
