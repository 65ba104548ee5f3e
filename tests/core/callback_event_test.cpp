#include "core/callback_event.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace {

std::vector<std::string> calls;  // "<tag>:<id>", in call order
void* last_data = nullptr;

void first(uint32_t id, void* data) {
    calls.push_back("first:" + std::to_string(id));
    last_data = data;
}
void second(uint32_t id, void*) {
    calls.push_back("second:" + std::to_string(id));
}
void cleanup(uint32_t id, void*) {
    calls.push_back("cleanup:" + std::to_string(id));
}
void tick(evutil_socket_t, short, void* count) {
    ++*static_cast<int*>(count);
}
void stop_loop(evutil_socket_t, short, void* base) {
    event_base_loopexit(static_cast<event_base*>(base), nullptr);
}

class CallbackEventTest : public ::testing::Test {
protected:
    void SetUp() override {
        calls.clear();
        base = CallbackEvent.new_event_base();
        dispatcher = CallbackEvent.create(base, 8);
        ASSERT_NE(dispatcher, nullptr);
    }
    void TearDown() override {
        CallbackEvent.destroy(dispatcher);
        event_base_free(base);
    }
    event_base* base = nullptr;
    EventDispatcher* dispatcher = nullptr;
};

TEST_F(CallbackEventTest, DeliveriesRunFromTheLoopOncePerSubscriber) {
    int payload = 0;
    CallbackEvent.subscribe(dispatcher, 3, first);
    CallbackEvent.subscribe(dispatcher, 3, second);
    CallbackEvent.subscribe(dispatcher, 4, first);
    CallbackEvent.notify(dispatcher, 5, &payload);  // nobody listens: nothing scheduled
    EXPECT_EQ(event_base_get_num_events(base, EVENT_BASE_COUNT_ADDED), 0);
    CallbackEvent.notify(dispatcher, 3, &payload);
    CallbackEvent.notify(nullptr, 3, &payload);
    EXPECT_TRUE(calls.empty()) << "a subscriber ran inside notify";
    event_base_dispatch(base);
    std::sort(calls.begin(), calls.end());  // subscribers of one event run in no set order
    EXPECT_EQ(calls, (std::vector<std::string>{"first:3", "second:3"}));
    EXPECT_EQ(last_data, &payload);
}

TEST_F(CallbackEventTest, CleanupRunsAfterTheSamePassDeliveries) {
    CallbackEvent.subscribe(dispatcher, 2, first);
    CallbackEvent.schedule_cleanup(dispatcher, cleanup, nullptr);
    CallbackEvent.notify(dispatcher, 2, nullptr);
    CallbackEvent.notify(dispatcher, 2, nullptr);
    event_base_dispatch(base);
    EXPECT_EQ(calls, (std::vector<std::string>{"first:2", "first:2", "cleanup:0"}));
}

TEST_F(CallbackEventTest, UnsubscribeKeepsDeliveriesAlreadyScheduled) {
    ListEntry* handle = CallbackEvent.subscribe(dispatcher, 1, first);
    CallbackEvent.notify(dispatcher, 1, nullptr);
    CallbackEvent.unsubscribe(dispatcher, 1, handle);
    free(handle);
    CallbackEvent.notify(dispatcher, 1, nullptr);
    event_base_dispatch(base);
    EXPECT_EQ(calls, (std::vector<std::string>{"first:1"}));
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
class TimerTest : public CallbackEventTest, public ::testing::WithParamInterface<bool> {};

TEST_P(TimerTest, FiresOnceOrEveryInterval) {
    const bool persistent = GetParam();
    int count = 0;
    event* timer = CallbackEvent.set_timer(base, tick, &count, 0, 40000, persistent);
    event* guard = CallbackEvent.set_timer(base, stop_loop, base, 0, 230000, false);
    event_base_dispatch(base);
    if (persistent) {
        EXPECT_GE(count, 3);
        EXPECT_LE(count, 6);
    } else {
        EXPECT_EQ(count, 1);
    }
    event_free(timer);
    event_free(guard);
}

INSTANTIATE_TEST_SUITE_P(Kinds, TimerTest, ::testing::Bool());

}  // namespace
