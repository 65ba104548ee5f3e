// The conversation with the Transfer Agent.

#include "cli/agent/session.h"

#include <cstdio>
#include <cstdlib>

#include "core/callback_event.h"
#include "core/logger.h"
#include "ipc/ipc_client.h"
#include "network/network.h"
#include "websocket/websocket.h"

namespace {

constexpr const char* SUBSCRIPTION_NAME = "services_subscription";
constexpr const char* EVENT_NAME = "tenants_event";
constexpr uint8_t CLOSE_NORMAL[] = {0x03, 0xe8};  // status 1000

// The run's conversation; one per process.
struct Conversation {
    EventDispatcher* dispatcher;
    IpcClientConfig* config;
    const SessionHooks* hooks;
    networkConnection* connection;  // the last one connected; owned by run()
    bool connected;
};

Conversation conversation{};

void connected_callback(uint32_t, void* connection) {
    conversation.connected = true;
    conversation.connection = static_cast<networkConnection*>(connection);
}

void busy_callback(uint32_t, void*) {
    conversation.hooks->busy();
}

void gave_up_callback(uint32_t, void*) {
    conversation.hooks->gave_up();
}

void too_large_callback(uint32_t, void*) {
    conversation.hooks->too_large();
}

void hung_up_callback(uint32_t, void*) {
    conversation.hooks->hung_up();
}

void timeout_callback(evutil_socket_t, short, void*) {
    conversation.hooks->timed_out();
}

bool closed_for_good();

// libevent-shaped wrapper so the first attempt starts from the loop.
void connect_callback(evutil_socket_t, short, void* connection) {
    Network.perform_connection(static_cast<networkConnection*>(connection));
}

// The init result is not checked: a second init keeps the first base, and a
// base that could not be made fails the dispatcher creation just after.
int start(int32_t attempts, const SessionHooks* hooks) {
    Network.init();
    conversation.hooks = hooks;
    conversation.dispatcher =
        CallbackEvent.create(Network.get_event_base(), DISPATCHER_EVENT_COUNT);
    if (conversation.dispatcher == nullptr) {
        return SESSION_ERR_DISPATCHER;
    }
    conversation.config = IpcConfig.create_client_ipc_config(TRANSFER_AGENT_IP, TRANSFER_AGENT_PORT,
                                                             attempts, TRANSFER_AGENT_RETRY_DELAY);
    if (conversation.config == nullptr) {
        return SESSION_ERR_CONFIG;
    }
    EventDispatcher* dispatcher = conversation.dispatcher;
    CallbackEvent.subscribe(dispatcher, NET_EVENT_CONNECTED, connected_callback);
    const struct {
        void (*hook)();
        uint32_t event;
        SubscriberCallback callback;
    } subscriptions[] = {
        {hooks->busy, IPC_EVENT_PLEASE_DISCONNECT, busy_callback},
        {hooks->gave_up, NET_EVENT_CONNECTION_FAILED, gave_up_callback},
        {hooks->too_large, WS_EVENT_MESSAGE_TOO_LARGE, too_large_callback},
        {hooks->hung_up, IPC_EVENT_DISCONNECTED, hung_up_callback},
    };
    for (const auto& subscription : subscriptions) {
        if (subscription.hook != nullptr) {
            CallbackEvent.subscribe(dispatcher, subscription.event, subscription.callback);
        }
    }
    return SESSION_OK;
}

int arm_timeout(int64_t seconds) {
    return IpcConfig.set_timeout(conversation.config, Network.get_event_base(), timeout_callback,
                                 nullptr, seconds);
}

// The config takes the subscription record; the list container is ours. A
// subscription the config could not take would let the command's answer end
// the conversation as if nothing more were awaited.
int follow_tenant_events(ResponseCallback on_event) {
    auto* item = static_cast<SubscriptionRequest*>(calloc(1, sizeof(SubscriptionRequest)));
    List* list = item != nullptr ? LinkedList.create(item) : nullptr;
    if (list == nullptr) {
        free(item);
        Logger.error("Could not create the subscription to the service events");
        return SESSION_ERR_MEMORY;
    }
    snprintf(item->subscription_name, sizeof item->subscription_name, "%s", SUBSCRIPTION_NAME);
    snprintf(item->event_name, sizeof item->event_name, "%s", EVENT_NAME);
    item->callback = on_event;
    IpcConfig.add_subscriptions(conversation.config, list);
    LinkedList.free(list, nullptr);
    if (IpcConfig.lookup_subscription(conversation.config, item) == nullptr) {
        free(item);
        Logger.error("Could not hold the subscription to the service events");
        return SESSION_ERR_MEMORY;
    }
    return SESSION_OK;
}

// The client sends the next request when an answer settles the one before.
// A request queued while nothing is pending (from an event handler, once
// the connection is up) goes out at once.
void send(const char* command, ExecutionCallback build, void* request, ResponseCallback on_answer) {
    const bool idle = conversation.config->commands->head == nullptr;
    IpcConfig.add_command(conversation.config, command, build, request, on_answer);
    if (idle && conversation.connection != nullptr && !closed_for_good()) {
        IpcClient.execute_command(conversation.connection, conversation.config);
    }
}

// A client that cannot be instantiated is not scheduled; the time-out, armed
// before, then ends the run. The loop runs dry only after the client has
// closed the connection, which is then released.
void run() {
    struct event_base* base = Network.get_event_base();
    networkConnection* connection =
        IpcClient.instantiate_ipc_client(conversation.config, base, conversation.dispatcher);
    if (connection != nullptr) {
        CallbackEvent.register_callback(base, connect_callback, connection, 0);
    }
    event_base_dispatch(base);
    conversation.connection = nullptr;
    Network.destroy_connection(connection);
    IpcConfig.free_ipc_config(conversation.config);
    conversation.config = nullptr;
    CallbackEvent.destroy(conversation.dispatcher);
    conversation.dispatcher = nullptr;
}

bool connected() {
    return conversation.connected;
}

bool closed_for_good() {
    const networkConnection* connection = conversation.connection;
    return connection == nullptr ||
           (connection->read_event == nullptr && connection->write_event == nullptr &&
            connection->retry_event == nullptr);
}

int send_close_frame() {
    uint64_t length = 0;
    uint8_t* frame = websocket_build_frame(CLOSE_NORMAL, sizeof CLOSE_NORMAL, WS_OPCODE_CLOSE, true,
                                           true, &length);
    int result = -1;
    if (conversation.connection != nullptr && frame != nullptr &&
        Network.send(conversation.connection, frame, length) == 0) {
        result = 0;
    }
    free(frame);
    return result;
}

bool all_sent() {
    const networkConnection* connection = conversation.connection;
    return connection == nullptr || connection->sending_queue == nullptr ||
           DynamicBuffer.size(connection->sending_queue) == 0;
}

struct event_base* loop_base() {
    return Network.get_event_base();
}

}  // namespace

const SessionModule Session = {
    .start = start,
    .arm_timeout = arm_timeout,
    .follow_tenant_events = follow_tenant_events,
    .send = send,
    .run = run,
    .connected = connected,
    .closed_for_good = closed_for_good,
    .send_close_frame = send_close_frame,
    .all_sent = all_sent,
    .event_base = loop_base,
};
