// IpcConfig: one conversation with the Transfer Agent, declared before it
// starts: where to connect, how to retry, the ordered command queue, the
// subscriptions to hold and a single time-out. The front end fills it; the
// IPC client consumes it.
#pragma once

#include <event2/event.h>

#include <cstdint>

#include "core/linked_list.h"
#include "network/network.h"
#include "sylvshared/json.h"

// Results of the IPC layer (IpcConfig and IpcClient): IPC_OK (0);
// IPC_ERR_FAILED (-1) the step could not be done (see each operation).
enum IpcResult : int {
    IPC_OK = 0,
    IPC_ERR_FAILED = -1,
};

// Writes a request's "data" value from user_data at the end of `data` (the
// request's text, owned by the caller); false means no "data" key.
using ExecutionCallback = bool (*)(void* user_data, JsonText* data);
// Handles a response's or an event's "data" (may be null). The library
// prints nothing: what the user sees is the caller's business. `data` and
// whatever is taken from it read the received message in place: valid only
// during the call, so a callback copies what it keeps.
using ResponseCallback = void (*)(JsonValue* data);

constexpr int IPC_COMMAND_NAME_LIMIT = 255;  // names must be shorter
constexpr int IPC_SUBSCRIPTION_FIELD_SIZE = 255;

struct IpcCommand {
    char name[IPC_COMMAND_NAME_LIMIT + 1];  // at most 254 characters
    int32_t id;                             // set when sent
    ExecutionCallback execution_callback;
    void* user_data;
    ResponseCallback response_callback;
};

struct SubscriptionRequest {
    char subscription_name[IPC_SUBSCRIPTION_FIELD_SIZE];
    char event_name[IPC_SUBSCRIPTION_FIELD_SIZE];
    ResponseCallback callback;
};

// The IPC config: a networkConnectionConfig, so the lower layers take it as
// the connection's settings, plus the conversation.
struct IpcClientConfig : networkConnectionConfig {
    List* commands;       // IpcCommand*, owned, in execution order
    List* subscriptions;  // SubscriptionRequest*, owned once added
    struct event* timeout_event;
};

// The tool never calls lookup_command: its slot serves the library's other users.
struct IpcConfigModule {
    // New config (ip is kept, not copied), or null.
    IpcClientConfig* (*create_client_ipc_config)(const char* ip, uint16_t port,
                                                 int32_t reconnection_policy, int32_t retry_delay);
    // Frees commands, subscriptions (with free()), a time-out still armed
    // (call it while the event base exists) and the config; null ignored.
    void (*free_ipc_config)(IpcClientConfig* config);
    // Appends a command; names of 255 characters or more are refused (logged).
    void (*add_command)(IpcClientConfig* config, const char* name,
                        ExecutionCallback execution_callback, void* user_data,
                        ResponseCallback response_callback);
    // First command with that name, or null.
    IpcCommand* (*lookup_command)(IpcClientConfig* config, const char* name);
    // Takes each record not already held (a skipped duplicate stays the
    // caller's, as does the list itself), then queues one "subscription"
    // command after those already queued.
    void (*add_subscriptions)(IpcClientConfig* config, List* subscriptions);
    // Arms the one-shot time-out (at most one per config, ever). IPC_OK, or
    // IPC_ERR_FAILED (missing config or base, one already set, no timer).
    int (*set_timeout)(IpcClientConfig* config, struct event_base* base, event_callback_fn callback,
                       void* argument, int64_t seconds);
    // First held record equal in subscription_name and event_name, or null.
    SubscriptionRequest* (*lookup_subscription)(IpcClientConfig* config,
                                                const SubscriptionRequest* subscription);
    // Builder of the "subscription" request: {"subscriptions": [names...]}.
    // `subscriptions` is a List* of SubscriptionRequest*. No data on a null
    // list.
    bool (*request_subscription)(void* subscriptions, JsonText* data);
    // Response callback of "subscription": ignores the answer.
    void (*subscription_response)(JsonValue* data);
};

extern const IpcConfigModule IpcConfig;
