#include "core/callback_event.h"

#include <cstdlib>

#include "core/logger.h"

namespace {

// Deliveries run at the base's middle priority; clean-ups one level later.
constexpr int CLEANUP_PRIORITY = 6;
constexpr int PRIORITY_LEVELS = 10;

// A one-shot call: the event and what it runs. Freed together after the call.
struct OneShot {
    event_callback_fn function;
    void* argument;
    struct event* event;
};

// Runs the one-shot call, then releases its event and record. Freeing an
// event from its own callback is allowed once it is no longer pending.
void fire_once(evutil_socket_t fd, short what, void* argument) {
    auto* shot = static_cast<OneShot*>(argument);
    shot->function(fd, what, shot->argument);
    event_free(shot->event);
    free(shot);
}

// Frees the first `count` subscriber lists (items belong to subscribers);
// identifiers nobody subscribed to have none.
void free_lists(EventDispatcher* dispatcher, uint32_t count) {
    for (uint32_t i = 0; i < count; ++i) {
        LinkedList.free(dispatcher->subscribers[i], nullptr);
    }
    free(dispatcher->subscribers);
}

// New dispatcher over `base`; the caller destroys it with `destroy`.
EventDispatcher* dispatcher_create(struct event_base* base, uint32_t event_count) {
    if (base == nullptr) {
        Logger.fatal("Unable to create a new event dispatcher. provided base event is NULL");
        return nullptr;
    }
    auto* dispatcher = static_cast<EventDispatcher*>(calloc(1, sizeof(EventDispatcher)));
    if (dispatcher == nullptr) {
        Logger.fatal("Unable to allocate memory for callback_event dispatcher");
        return nullptr;
    }
    dispatcher->event_base = base;
    // A list is made at an identifier's first subscription: the tool's 54
    // identifiers have five subscribers at most.
    dispatcher->subscribers = static_cast<List**>(calloc(size_t{event_count} + 1, sizeof(List*)));
    if (dispatcher->subscribers == nullptr) {
        Logger.fatal("Unable to allocate memory for callback_event subscribers lists");
    } else {
        dispatcher->lock = Mutex.create();
        if (dispatcher->lock != nullptr) {
            dispatcher->event_count = event_count;
            return dispatcher;
        }
        Logger.fatal("Unable to allocate memory for Lock in callback_event dispatcher");
        free_lists(dispatcher, event_count);
    }
    free(dispatcher);
    return nullptr;
}

// A precise clock: the coarse one lags by up to a tick, so a time-out could
// end a few milliseconds before its time. With poll it costs no system call.
constexpr int kBaseFlags = EVENT_BASE_FLAG_IGNORE_ENV | EVENT_BASE_FLAG_PRECISE_TIMER;

// libevent's own messages (a failed allocation, a broken back-end) go to
// the Logger like the library's: by default libevent writes them to
// standard error, which is the tool's and scripts read.
void log_libevent_message(int severity, const char* message) {
    switch (severity) {
        case EVENT_LOG_DEBUG:
            Logger.debug("libevent: %s", message);
            break;
        case EVENT_LOG_MSG:
            Logger.info("libevent: %s", message);
            break;
        case EVENT_LOG_WARN:
            Logger.warn("libevent: %s", message);
            break;
        default:
            Logger.error("libevent: %s", message);
            break;
    }
}

// Event base with 10 priority levels, so clean-ups can run after deliveries.
// A base without them is refused: setting a priority on it would abort.
// libevent's EVENT_* variables are not read: each costs four set-uid checks
// per process, and the tool's back-end is not for the environment to choose.
// poll, not epoll: a base watches one or two sockets, and epoll's own
// descriptor and one epoll_ctl per change cost more than they save.
struct event_base* new_event_base() {
    event_set_log_callback(log_libevent_message);
    struct event_config* config = event_config_new();
    if (config == nullptr || event_config_set_flag(config, kBaseFlags) != 0 ||
        event_config_avoid_method(config, "epoll") != 0) {
        Logger.fatal("Unable to configure an event base");
        if (config != nullptr) {
            event_config_free(config);
        }
        return nullptr;
    }
    struct event_base* base = event_base_new_with_config(config);
    event_config_free(config);
    if (base == nullptr) {
        Logger.fatal("Unable to create an event base");
        return nullptr;
    }
    if (event_base_priority_init(base, PRIORITY_LEVELS) != 0) {
        Logger.fatal("Unable to give the event base %d priorities", PRIORITY_LEVELS);
        event_base_free(base);
        return nullptr;
    }
    return base;
}

// The libevent callback of every delivery: calls the subscriber, then frees
// the callback info that `notify` or `schedule_cleanup` made for it.
void deliver(evutil_socket_t /*fd*/, short /*what*/, void* argument) {
    auto* info = static_cast<CallbackInfo*>(argument);  // never null: notify checks it
    info->function(static_cast<uint32_t>(info->event_id), info->data);
    free(info);
}

// New callback info, or null (the caller logs the failure in its own words).
CallbackInfo* new_info(SubscriberCallback function, int32_t event_id, void* data) {
    auto* info = static_cast<CallbackInfo*>(malloc(sizeof(CallbackInfo)));
    if (info != nullptr) {
        *info = CallbackInfo{function, event_id, data};
    }
    return info;
}

// A one-shot call of `function` after `seconds`; the event frees itself once
// it has fired, so callers must not free the returned event.
struct event* register_callback(struct event_base* base, event_callback_fn function, void* argument,
                                int64_t seconds) {
    if (base == nullptr) {
        Logger.fatal("Unable to register callback because provided event_base is NULL");
        return nullptr;
    }
    if (function == nullptr) {
        Logger.fatal("Unable to register callback because provided callback address is NULL");
        return nullptr;
    }
    auto* shot = static_cast<OneShot*>(malloc(sizeof(OneShot)));
    struct event* event = shot == nullptr ? nullptr : event_new(base, -1, 0, fire_once, shot);
    if (event == nullptr) {
        Logger.fatal("Event is NULL");
        free(shot);
        return nullptr;
    }
    *shot = OneShot{function, argument, event};
    const timeval delay{static_cast<time_t>(seconds), 0};
    if (event_add(event, &delay) != 0) {
        Logger.fatal("Unable to register event");
        event_free(event);
        free(shot);
        return nullptr;
    }
    return event;
}

// Runs function(0, data) after this pass's deliveries; lets network code free
// a connection only once every delivery naming it has run.
void schedule_cleanup(EventDispatcher* dispatcher, SubscriberCallback function, void* data) {
    if (dispatcher == nullptr) {
        Logger.trace("Event dispatcher not set. Abort");
        return;
    }
    CallbackInfo* info = new_info(function, 0, data);
    if (info == nullptr) {
        Logger.error("Unable to create callback info for cleaning up");
        return;
    }
    struct event* event = register_callback(dispatcher->event_base, deliver, info, 0);
    if (event == nullptr) {
        free(info);
        return;
    }
    event_priority_set(event, CLEANUP_PRIORITY);
}

// Out-of-range identifiers would index past the lists: refuse them.
bool valid_id(const EventDispatcher* dispatcher, uint32_t event_id) {
    if (event_id < dispatcher->event_count) {
        return true;
    }
    Logger.error("Event identifier %u is out of range", event_id);
    return false;
}

// Appends a subscriber under the lock, making the identifier's list at its
// first subscription; the entry is the unsubscribe handle, null when either
// cannot be allocated.
ListEntry* subscribe(EventDispatcher* dispatcher, uint32_t event_id, SubscriberCallback callback) {
    if (dispatcher == nullptr || !valid_id(dispatcher, event_id)) {
        return nullptr;
    }
    Mutex.lock(dispatcher->lock, -1);
    List*& list = dispatcher->subscribers[event_id];
    if (list == nullptr) {
        list = LinkedList.create(nullptr);
    }
    ListEntry* entry =
        list != nullptr ? LinkedList.add(list, reinterpret_cast<void*>(callback)) : nullptr;
    Mutex.unlock(dispatcher->lock);
    return entry;
}

// Unlinks the handle; the caller frees the entry. Deliveries already
// scheduled for it still run.
void unsubscribe(EventDispatcher* dispatcher, uint32_t event_id, ListEntry* handle) {
    if (dispatcher == nullptr || handle == nullptr || !valid_id(dispatcher, event_id)) {
        return;
    }
    LinkedList.remove(dispatcher->subscribers[event_id], handle, nullptr);
}

// Schedules one delivery per current subscriber; never calls one itself, so
// a subscriber may notify again from its callback.
void notify(EventDispatcher* dispatcher, uint32_t event_id, void* data) {
    if (dispatcher == nullptr) {
        Logger.trace("Event dispatcher not set. Abort");
        return;
    }
    if (!valid_id(dispatcher, event_id)) {
        return;
    }
    Mutex.lock(dispatcher->lock, -1);
    const List* list = dispatcher->subscribers[event_id];
    for (ListEntry* entry = list != nullptr ? list->head : nullptr; entry != nullptr;
         entry = entry->next) {
        auto subscriber = reinterpret_cast<SubscriberCallback>(entry->item);
        CallbackInfo* info = new_info(subscriber, static_cast<int32_t>(event_id), data);
        if (info == nullptr) {
            Logger.fatal("Unable to allocate memory for callback info");
        } else if (register_callback(dispatcher->event_base, deliver, info, 0) == nullptr) {
            free(info);
        }
    }
    Mutex.unlock(dispatcher->lock);
}

// Timer on `base`, once or every interval; the caller frees it with event_free.
struct event* set_timer(struct event_base* base, event_callback_fn callback, void* argument,
                        int64_t seconds, int64_t microseconds, bool persistent) {
    if (base == nullptr) {
        Logger.error("Unable to set timer. Event base is NULL");
        return nullptr;
    }
    if (callback == nullptr) {
        Logger.error("Unable to set timer. Callback is NULL");
        return nullptr;
    }
    struct event* event = event_new(base, -1, persistent ? EV_PERSIST : 0, callback, argument);
    if (event == nullptr) {
        Logger.error("Unable to set timer. Event is NULL");
        return nullptr;
    }
    const timeval interval{static_cast<time_t>(seconds), static_cast<suseconds_t>(microseconds)};
    if (event_add(event, &interval) != 0) {
        Logger.error("Unable to set timer. Event cannot be added");
        event_free(event);
        return nullptr;
    }
    return event;
}

// Frees lists (not their subscribers), lock and record. Deliveries already
// scheduled keep their own callback info and still run.
void dispatcher_destroy(EventDispatcher* dispatcher) {
    if (dispatcher == nullptr) {
        return;
    }
    Mutex.lock(dispatcher->lock, -1);
    free_lists(dispatcher, dispatcher->event_count);
    Mutex.unlock(dispatcher->lock);
    Mutex.destroy(dispatcher->lock);
    free(dispatcher);
}

}  // namespace

const CallbackEventModule CallbackEvent = {
    .create = dispatcher_create,
    .new_event_base = new_event_base,
    .schedule_cleanup = schedule_cleanup,
    .subscribe = subscribe,
    .unsubscribe = unsubscribe,
    .notify = notify,
    .register_callback = register_callback,
    .set_timer = set_timer,
    .destroy = dispatcher_destroy,
};
