// Releasing what a module owns: malloc'd memory held by a unique_ptr, and
// libevent events held in a record's slot.
#pragma once

#include <event2/event.h>

#include <cstdlib>
#include <memory>

// Deleter of every malloc'd block held by a unique_ptr in the library.
struct FreeDeleter {
    void operator()(void* pointer) const noexcept { free(pointer); }
};
template <typename T>
using MallocPtr = std::unique_ptr<T, FreeDeleter>;

// Deletes and frees the event in `slot`, then clears the slot; nothing when
// it is empty.
inline void drop_event(struct event** slot) {
    if (*slot != nullptr) {
        event_del(*slot);
        event_free(*slot);
        *slot = nullptr;
    }
}
