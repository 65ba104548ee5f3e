// CallbackEvent: the event dispatcher and the library's timers.
//
// A dispatcher holds, per event identifier, a list of subscriber callbacks.
// `notify` never calls a subscriber: it schedules one delivery per subscriber
// on the event base, and each runs later from the loop (priority 5).
// `schedule_cleanup` schedules at priority 6, so a clean-up scheduled in the
// same pass runs after that pass's deliveries. Data passed through the
// dispatcher is neither copied nor owned by it.
#pragma once

#include <event2/event.h>

#include <cstdint>

#include "core/linked_list.h"
#include "core/mutex.h"

// Number of identifiers the tool's dispatcher is created with; the layers
// above name the ones they raise (network/network.h, ipc/ipc_client.h).
constexpr uint32_t DISPATCHER_EVENT_COUNT = 54;

using SubscriberCallback = void (*)(uint32_t event_id, void* data);

struct EventDispatcher {
    struct event_base* event_base;  // not owned; must outlive deliveries
    uint32_t event_count;
    List** subscribers;  // owned, one list per identifier subscribed to, else null
    Lock* lock;          // owned, guards the lists
};

// One scheduled delivery; owned by it and freed right after `function` runs.
struct CallbackInfo {
    SubscriberCallback function;
    int32_t event_id;
    void* data;
};

// The tool never calls schedule_cleanup nor unsubscribe: their slots serve
// the library's other users.
struct CallbackEventModule {
    // New dispatcher over `base` with identifiers 0..event_count-1, or null
    // (null base or allocation failure, logged at fatal level).
    EventDispatcher* (*create)(struct event_base* base, uint32_t event_count);
    // New event base with 10 priorities, or null (logged) when it cannot be
    // made or given its priorities.
    struct event_base* (*new_event_base)();
    // Runs function(0, data) on the next loop pass, after that pass's
    // ordinary deliveries.
    void (*schedule_cleanup)(EventDispatcher* dispatcher, SubscriberCallback function, void* data);
    // Appends `callback` to the identifier's list. Returns the entry (the
    // handle for `unsubscribe`), or null.
    ListEntry* (*subscribe)(EventDispatcher* dispatcher, uint32_t event_id,
                            SubscriberCallback callback);
    // Unlinks the handle's entry (not freed, no lock taken); null is ignored.
    void (*unsubscribe)(EventDispatcher* dispatcher, uint32_t event_id, ListEntry* handle);
    // Schedules one delivery of (event_id, data) per current subscriber.
    void (*notify)(EventDispatcher* dispatcher, uint32_t event_id, void* data);
    // One-shot call of `function(-1, EV_TIMEOUT, argument)` after `seconds`
    // (0 = next loop pass). Returns the event, or null (logged) when it
    // cannot be made or added. The event releases
    // itself once it has fired: callers may set its priority before then,
    // but never free it.
    struct event* (*register_callback)(struct event_base* base, event_callback_fn function,
                                       void* argument, int64_t seconds);
    // Timer firing once, or every interval when `persistent`. Returns the
    // event, which the caller frees with event_free; null (logged) on a null
    // base or callback, or when it cannot be made or added.
    struct event* (*set_timer)(struct event_base* base, event_callback_fn callback, void* argument,
                               int64_t seconds, int64_t microseconds, bool persistent);
    // Frees the dispatcher; deliveries already scheduled still run.
    void (*destroy)(EventDispatcher* dispatcher);
};

extern const CallbackEventModule CallbackEvent;
