// The run's one conversation with the Transfer Agent on 127.0.0.1:11038:
// the network module, the event dispatcher, the IPC configuration, the
// time-out, the subscription to the service events and the event loop.
// What happens to the conversation (a time-out, an eviction, no agent) is
// handed to the front end's hooks; this module decides nothing about what
// the user is told.
#pragma once

#include <event2/event.h>

#include <cstdint>

#include "ipc/ipc_config.h"

constexpr const char* TRANSFER_AGENT_IP = "127.0.0.1";
constexpr uint16_t TRANSFER_AGENT_PORT = 11038;
// Three attempts, three seconds apart; --check makes one.
constexpr int32_t TRANSFER_AGENT_ATTEMPTS = 3;
constexpr int32_t SINGLE_ATTEMPT = -1;
constexpr int32_t TRANSFER_AGENT_RETRY_DELAY = 3;

// Results of Session.start and Session.follow_tenant_events.
enum SessionResult : int {
    SESSION_OK = 0,
    SESSION_ERR_DISPATCHER = -1,  // the dispatcher could not be created
    SESSION_ERR_CONFIG = -2,      // the IPC configuration could not be created
    SESSION_ERR_MEMORY = -3,      // the subscription could not be made
};

// The front end's answers to what happens to the conversation; a null hook
// is not subscribed. Each runs from the loop and may end the run.
struct SessionHooks {
    void (*timed_out)();  // the time-out armed with arm_timeout fired
    void (*busy)();       // the agent serves another client ("please_disconnect")
    void (*gave_up)();    // every connection attempt failed
    void (*too_large)();  // a message past 16 MiB dropped the connection
    void (*hung_up)();    // the conversation is over (the agent closed, or all was said)
};

struct SessionModule {
    // Network module, dispatcher and IPC configuration for `attempts`
    // attempts; subscribes the hooks (kept, not copied). SESSION_OK,
    // SESSION_ERR_DISPATCHER or SESSION_ERR_CONFIG.
    int (*start)(int32_t attempts, const SessionHooks* hooks);
    // Arms the one time-out now, before any connection exists, so that it
    // covers connecting too. IPC_OK or IPC_ERR_FAILED.
    int (*arm_timeout)(int64_t seconds);
    // Holds "services_subscription", whose "tenants_event" events go to
    // `on_event`. SESSION_OK or SESSION_ERR_MEMORY.
    int (*follow_tenant_events)(ResponseCallback on_event);
    // Queues a request: `build(request)` makes its "data" when it is sent,
    // `on_answer` gets the answer's. May be called from a handler to go on
    // with the conversation; queued while nothing is pending on a live
    // connection (from an event handler), it is sent at once.
    void (*send)(const char* command, ExecutionCallback build, void* request,
                 ResponseCallback on_answer);
    // Connects and runs the loop until the conversation is over (nothing
    // queued, nothing followed), then frees the connection, the
    // configuration and the dispatcher.
    void (*run)();
    // A connection was made at least once.
    bool (*connected)();
    // A connection was made and is now closed with no attempt pending (a
    // refused handshake ends like this, without any event).
    bool (*closed_for_good)();
    // Queues a WebSocket close frame (status 1000). 0, or -1 (no connection,
    // no memory).
    int (*send_close_frame)();
    // Nothing is left in the sending queue.
    bool (*all_sent)();
    struct event_base* (*event_base)();
};

extern const SessionModule Session;
