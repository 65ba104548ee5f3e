#include "core/callback_event.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

// event_base_priority_init fails on demand (the binary links with --wrap).
bool priorities_fail = false;
extern "C" int __real_event_base_priority_init(event_base* base, int count);
extern "C" int __wrap_event_base_priority_init(event_base* base, int count) {
    return priorities_fail ? -1 : __real_event_base_priority_init(base, count);
}

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

class CallbackEventTest : public ::testing::Test {
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
    CallbackEvent.notify(dispatcher, 3, &payload);
    CallbackEvent.notify(dispatcher, 5, &payload);                      // nobody ever subscribed
    EXPECT_EQ(CallbackEvent.subscribe(dispatcher, 8, first), nullptr);  // out of range
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

// Setting a priority on a base without them would abort: no base at all.
TEST(CallbackEventBase, RefusedWithoutPriorities) {
    priorities_fail = true;
    EXPECT_EQ(CallbackEvent.new_event_base(), nullptr);
    priorities_fail = false;
}

}  // namespace
