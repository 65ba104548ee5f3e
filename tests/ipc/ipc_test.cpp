// What the tool's output cannot show: the order of the dispatcher events the
// client raises, and the command queue around events. Messages are handed to
// the client as the framing would, on a connection that never connects.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "ipc/ipc_client.h"

// The client's parse runs out of memory on demand (the binary links with
// --wrap).
bool parse_fails = false;
extern "C" JsonValue* __real_json_parse_in_place(const char* text);
extern "C" JsonValue* __wrap_json_parse_in_place(const char* text) {
    errno = parse_fails ? ENOMEM : errno;
    return parse_fails ? nullptr : __real_json_parse_in_place(text);
}

namespace {

std::vector<uint32_t> events;  // dispatcher events, in order
void record_event(uint32_t id, void*) {
    events.push_back(id);
}
void ignore_data(JsonValue*) {}
bool no_data(void*, JsonText*) {
    return false;
}

void deliver(networkConnection* connection, const std::string& message) {
    IpcClient.receive_message_callback(connection, reinterpret_cast<const uint8_t*>(message.data()),
                                       message.size(), 0);
}

// An event never settles the pending command, nor an answer that cannot be
// read for want of memory; the answer does. An eviction raises 47, then 46:
// the front end's busy message must win the race.
TEST(IpcClient, EventsKeepTheQueueAndEvictionRaises47Then46) {
    ASSERT_EQ(Network.init(), NETWORK_OK);
    event_base* base = Network.get_event_base();
    EventDispatcher* dispatcher = CallbackEvent.create(base, DISPATCHER_EVENT_COUNT);
    CallbackEvent.subscribe(dispatcher, IPC_EVENT_DISCONNECTED, record_event);
    CallbackEvent.subscribe(dispatcher, IPC_EVENT_PLEASE_DISCONNECT, record_event);
    IpcClientConfig* config = IpcConfig.create_client_ipc_config("127.0.0.1", 1, -1, 1);
    auto* subscription = static_cast<SubscriptionRequest*>(calloc(1, sizeof(SubscriptionRequest)));
    strcpy(subscription->subscription_name, "services_subscription");
    strcpy(subscription->event_name, "tenants_event");
    subscription->callback = ignore_data;
    List* list = LinkedList.create(subscription);
    IpcConfig.add_subscriptions(config, list);
    LinkedList.free(list, nullptr);
    IpcConfig.add_command(config, "get_tenants", no_data, nullptr, ignore_data);
    networkConnection* connection = IpcClient.instantiate_ipc_client(config, nullptr, dispatcher);
    ASSERT_EQ(IpcClient.execute_command(connection, config), IPC_OK);  // not sent: not connected
    const int id = static_cast<IpcCommand*>(config->commands->head->item)->id;

    deliver(connection, R"({"command":"tenants_event","data":{"n":1}})");
    deliver(connection, R"({"command":"tenants_event","id":-1,"data":{"n":2}})");
    const std::string answer = R"({"command":"subscription","id":)" + std::to_string(id) + "}";
    parse_fails = true;
    deliver(connection, answer);
    parse_fails = false;
    EXPECT_EQ(LinkedList.size(config->commands), 2u);
    deliver(connection, answer);
    EXPECT_EQ(LinkedList.size(config->commands), 1u);
    deliver(connection, R"({"command":"please_disconnect","id":0})");
    event_base_loop(base, EVLOOP_NONBLOCK);
    EXPECT_EQ(events, (std::vector<uint32_t>{IPC_EVENT_PLEASE_DISCONNECT, IPC_EVENT_DISCONNECTED}));

    Network.destroy_connection(connection);
    IpcConfig.free_ipc_config(config);
    CallbackEvent.destroy(dispatcher);
}

}  // namespace

namespace {

// The announcement leaves as a constant text, not as a serialised value: it
// must be the very bytes the serialiser would write.
TEST(IpcClient, AnnouncementIsTheSerialisedValue) {
    JsonValue* value = json_parse("{\"command\": \"connection\", \"id\": 17}");
    ASSERT_NE(value, nullptr);
    char text[64] = {};
    EXPECT_GT(json_serialize(value, text, sizeof text), 0);
    EXPECT_STREQ(text, IPC_ANNOUNCEMENT_WIRE);
    json_free_value(value);
}

}  // namespace
