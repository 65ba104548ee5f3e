#include "ipc/ipc_config.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "ipc_test_log.h"

namespace {

SubscriptionRequest* new_subscription(const char* name, const char* event) {
    auto* subscription = static_cast<SubscriptionRequest*>(calloc(1, sizeof(SubscriptionRequest)));
    strcpy(subscription->subscription_name, name);
    strcpy(subscription->event_name, event);
    return subscription;
}

std::vector<std::string> queued_names(IpcClientConfig* config) {
    std::vector<std::string> names;
    for (ListEntry* entry = config->commands->head; entry != nullptr; entry = entry->next) {
        names.push_back(static_cast<IpcCommand*>(entry->item)->name);
    }
    return names;
}

std::string serialized(JsonValue* value) {
    char text[1000] = {};
    json_serialize(value, text, sizeof text);
    json_free_value(value);
    return text;
}

class IpcConfigTest : public ::testing::Test {
protected:
    void TearDown() override { IpcConfig.free_ipc_config(config_); }
    IpcClientConfig* config_ = IpcConfig.create_client_ipc_config("127.0.0.1", 11038, 3, 3);
    LogTail log_;
};

struct NameCase {
    size_t length;
    bool accepted;
};

class CommandNameTest : public IpcConfigTest, public ::testing::WithParamInterface<NameCase> {};

TEST_P(CommandNameTest, LongestNameHas254Characters) {
    const std::string name(GetParam().length, 'c');
    IpcConfig.add_command(config_, name.c_str(), nullptr, nullptr, nullptr);
    EXPECT_EQ(IpcConfig.lookup_command(config_, name.c_str()) != nullptr, GetParam().accepted);
    EXPECT_EQ(log_.contains("Cannot create IPC command because specified command name is too "
                            "long. Allowed max size = 255"),
              !GetParam().accepted);
}

INSTANTIATE_TEST_SUITE_P(Lengths, CommandNameTest,
                         ::testing::Values(NameCase{1, true}, NameCase{254, true},
                                           NameCase{255, false}, NameCase{4000, false}),
                         [](const auto& row) {
                             return "Length" + std::to_string(row.param.length);
                         });

TEST_F(IpcConfigTest, DuplicateSubscriptionIsHeldOnceAndRequestedOnce) {
    SubscriptionRequest* first = new_subscription("services_subscription", "tenants_event");
    SubscriptionRequest* twin = new_subscription("services_subscription", "tenants_event");
    List* list = LinkedList.create(first);
    LinkedList.add(list, twin);
    LinkedList.add(list, first);
    IpcConfig.add_subscriptions(config_, list);
    LinkedList.free(list, nullptr);

    EXPECT_EQ(LinkedList.size(config_->subscriptions), 1u);
    EXPECT_EQ(IpcConfig.lookup_subscription(config_, twin), first);
    EXPECT_EQ(queued_names(config_), std::vector<std::string>{"subscription"});
    EXPECT_TRUE(
        log_.contains("Unable to add subscription services_subscription with command "
                      "tenants_event. This subscription is already in the list"));
    free(twin);  // refused, so still ours
}

TEST_F(IpcConfigTest, EachAddSubscriptionsQueuesARequestInPlace) {
    IpcConfig.add_command(config_, "connect_tenants", nullptr, nullptr, nullptr);
    List* list = LinkedList.create(new_subscription("a_subscription", "a_event"));
    IpcConfig.add_subscriptions(config_, list);
    LinkedList.free(list, nullptr);
    IpcConfig.add_command(config_, "get_tenants", nullptr, nullptr, nullptr);
    list = LinkedList.create(new_subscription("b_subscription", "b_event"));
    IpcConfig.add_subscriptions(config_, list);
    LinkedList.free(list, nullptr);

    EXPECT_EQ(queued_names(config_), (std::vector<std::string>{"connect_tenants", "subscription",
                                                               "get_tenants", "subscription"}));
    auto* request = static_cast<IpcCommand*>(config_->commands->tail->item);
    EXPECT_EQ(serialized(request->execution_callback(request->user_data)),
              R"({"subscriptions":["a_subscription","b_subscription"]})");
    EXPECT_EQ(request->response_callback(nullptr), nullptr);
}

void count_fires(evutil_socket_t, short, void* count) {
    ++*static_cast<int*>(count);
}

TEST_F(IpcConfigTest, OneTimeoutPerConfigFiringOnce) {
    struct event_base* base = event_base_new();
    int fires = 0;
    EXPECT_EQ(IpcConfig.set_timeout(config_, nullptr, count_fires, &fires, 0), -1);
    ASSERT_EQ(IpcConfig.set_timeout(config_, base, count_fires, &fires, 0), 0);
    struct event* first = config_->timeout_event;
    EXPECT_EQ(IpcConfig.set_timeout(config_, base, count_fires, &fires, 0), -1);
    EXPECT_EQ(config_->timeout_event, first);
    EXPECT_TRUE(
        log_.contains("Unable to set timeout as a timeout is already set on this ipc "
                      "config"));
    event_base_dispatch(base);  // returns once nothing is pending: the timer is one-shot
    EXPECT_EQ(fires, 1);
    IpcConfig.free_ipc_config(config_);
    config_ = nullptr;
    event_base_free(base);
}

TEST_F(IpcConfigTest, MissingArgumentsAreLoggedAndRefused) {
    const std::vector<std::pair<std::function<bool()>, std::string>> cases = {
        {[] { return IpcConfig.create_client_ipc_config(nullptr, 1, 1, 1) == nullptr; },
         "Unable to create client ipc config because provided ip address is NULL"},
        {[] { return IpcConfig.request_subscription(nullptr) == nullptr; },
         "Unable to request subscription: subscription list is NULL"},
        {[this] { return IpcConfig.lookup_subscription(config_, nullptr) == nullptr; },
         "Unable to lookup specified subscription because provided subscription  is NULL"},
        {[this] {
             IpcConfig.add_subscriptions(config_, nullptr);
             return LinkedList.size(config_->commands) == 0;
         },
         "Unable to add subscription. Subscription list is NULL"},
        {[this] {
             IpcConfig.add_command(config_, nullptr, nullptr, nullptr, nullptr);
             return LinkedList.size(config_->commands) == 0;
         },
         "Unable to add command. Command name is NULL"},
    };
    for (const auto& [call, message] : cases) {
        EXPECT_TRUE(call()) << message;
        EXPECT_TRUE(log_.contains(message)) << message;
    }
}

}  // namespace
