// LinkedList: the library's one container, a doubly linked list of untyped
// item pointers. The list owns its entries, never its items: a destructor is
// passed to `remove` or `free` when items should go too. No lock inside.
// Entries are malloc'd; an entry handed back by `remove` or `pop_first` is
// released by the caller with free().
#pragma once

#include <cstdint>

struct ListEntry {
    void* item;
    ListEntry* prev;
    ListEntry* next;
};

// The LinkedList record.
struct List {
    ListEntry* head;
    ListEntry* tail;
};

using ItemDestructor = void (*)(void* item);
using ListVisitor = void (*)(ListEntry* entry, void* context);
using ListPredicate = int (*)(ListEntry* entry, void* context);

// The tool never calls for_each: its slot serves the library's other users.
struct LinkedListModule {
    // Empty list, holding `first_item` when it is not null. Null on failure.
    List* (*create)(void* first_item);
    // Appends `item` (null accepted); returns the new entry, or null (no
    // list, or no memory).
    ListEntry* (*add)(List* list, void* item);
    // Unlinks `entry`, calls `destructor` on its item when both are non-null.
    // The entry itself is not freed.
    void (*remove)(List* list, ListEntry* entry, ItemDestructor destructor);
    // Unlinks and returns the head entry (null when empty); caller owns it.
    ListEntry* (*pop_first)(List* list);
    // Calls `function` on every entry, head to tail; it must not free it.
    void (*for_each)(List* list, ListVisitor function, void* context);
    // First entry for which `predicate` is non-zero, or null.
    ListEntry* (*find)(List* list, ListPredicate predicate, void* context);
    // Number of entries, counted by walking; 0 for null.
    uint64_t (*size)(List* list);
    // Frees every entry (calling `destructor` on non-null items) and the list.
    void (*free)(List* list, ItemDestructor destructor);
};

extern const LinkedListModule LinkedList;
