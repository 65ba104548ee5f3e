#include "core/callback_event.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

std::vector<std::string> calls;  // "<tag>:<id>", in call order
void* last_data = nullptr;

void first(uint32_t id, void* data) {
    calls.push_back("first:" + std::to_string(id));
    last_data = data;
}
void cleanup(uint32_t id, void*) {
    calls.push_back("cleanup:" + std::to_string(id));
}
void tick(evutil_socket_t, short, void* count) {
    ++*static_cast<int*>(count);
}

class CallbackEventTest : public ::testing::TestWithParam<bool> {
protected:
    void SetUp() override {
        calls.clear();
        ASSERT_NE(dispatcher, nullptr);
    }
    void TearDown() override {
        CallbackEvent.destroy(dispatcher);
        event_base_free(base);
    }
    event_base* base = CallbackEvent.new_event_base();
    EventDispatcher* dispatcher = CallbackEvent.create(base, 8);
};

TEST_F(CallbackEventTest, DeliveriesRunFromTheLoopOncePerSubscriber) {
    int payload = 0;
    CallbackEvent.subscribe(dispatcher, 3, first);
    CallbackEvent.subscribe(dispatcher, 3, first);  // twice: two deliveries
    CallbackEvent.subscribe(dispatcher, 4, first);
    CallbackEvent.notify(dispatcher, 5, &payload);  // nobody listens: nothing scheduled
    EXPECT_EQ(event_base_get_num_events(base, EVENT_BASE_COUNT_ADDED), 0);
    CallbackEvent.notify(dispatcher, 3, &payload);
    CallbackEvent.notify(nullptr, 3, &payload);
    EXPECT_TRUE(calls.empty()) << "a subscriber ran inside notify";
    event_base_dispatch(base);
    EXPECT_EQ(calls, (std::vector<std::string>{"first:3", "first:3"}));
    EXPECT_EQ(last_data, &payload);
}

// The clean-up, scheduled first, still runs after the pass's deliveries; a
// delivery scheduled before unsubscribing still runs, later ones do not.
TEST_F(CallbackEventTest, CleanupAndUnsubscribeAfterScheduledDeliveries) {
    ListEntry* handle = CallbackEvent.subscribe(dispatcher, 1, first);
    CallbackEvent.schedule_cleanup(dispatcher, cleanup, nullptr);
    CallbackEvent.notify(dispatcher, 1, nullptr);
    CallbackEvent.notify(dispatcher, 1, nullptr);
    CallbackEvent.unsubscribe(dispatcher, 1, handle);
    free(handle);
    CallbackEvent.notify(dispatcher, 1, nullptr);
    event_base_dispatch(base);
    EXPECT_EQ(calls, (std::vector<std::string>{"first:1", "first:1", "cleanup:0"}));
}

TEST_F(CallbackEventTest, RejectsMissingArguments) {
    EXPECT_EQ(CallbackEvent.create(nullptr, 4), nullptr);
    EXPECT_EQ(CallbackEvent.subscribe(nullptr, 1, first), nullptr);
    EXPECT_EQ(CallbackEvent.subscribe(dispatcher, 8, first), nullptr);  // out of range
    EXPECT_EQ(CallbackEvent.register_callback(nullptr, tick, nullptr, 0), nullptr);
    EXPECT_EQ(CallbackEvent.register_callback(base, nullptr, nullptr, 0), nullptr);
    EXPECT_EQ(CallbackEvent.set_timer(nullptr, tick, nullptr, 0, 0, false), nullptr);
    EXPECT_EQ(CallbackEvent.set_timer(base, nullptr, nullptr, 0, 0, false), nullptr);
}

// A 40 ms timer watched for 230 ms: once, or about five times when persistent.
TEST_P(CallbackEventTest, TimerFiresOnceOrEveryInterval) {
    int count = 0;
    event* timer = CallbackEvent.set_timer(base, tick, &count, 0, 40000, GetParam());
    event* guard = CallbackEvent.set_timer(
        base,
        [](evutil_socket_t, short, void* loop) {
            event_base_loopbreak(static_cast<event_base*>(loop));
        },
        base, 0, 230000, false);
    event_base_dispatch(base);
    EXPECT_GE(count, GetParam() ? 3 : 1);
    EXPECT_LE(count, GetParam() ? 6 : 1);
    event_free(timer);
    event_free(guard);
}

INSTANTIATE_TEST_SUITE_P(Persistent, CallbackEventTest, ::testing::Bool());

}  // namespace
