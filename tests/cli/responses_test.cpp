// Handlers given no "data" at all: the IPC client never does this with a
// live Transfer Agent (it drops such messages), so only here can these
// paths be reached.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "cli/follow_up.h"
#include "cli/responses.h"
#include "ipc/ipc_config.h"

namespace {

TEST(NullData, ResponsesFailWithTheirOwnMessage) {
    const std::pair<ResponseCallback, const char*> cases[] = {
        {add_response, "adding service"},
        {edit_response, "editing service"},
        {remove_response, "removing service"},
        {get_proxy_response, "trying to get proxy configuration"},
        {set_proxy_response, "trying to set proxy"},
        {save_proxy_response, "trying to save proxy configuration"},
        {traceability_response, "trying to save traceability configuration"},
        {enable_response, "enabling service"},
        {disable_response, "disabling service"}};
    for (const auto& [callback, doing] : cases) {
        EXPECT_EXIT(callback(nullptr), testing::ExitedWithCode(1),
                    testing::Eq("An error occurred while " + std::string(doing) + ".\n"));
    }
}

TEST(NullData, EventHandlersKeepWaitingAndListShowsNothing) {
    for (ResponseCallback handler :
         {add_event_handler, enable_event_handler, disable_event_handler}) {
        EXPECT_EQ(handler(nullptr), nullptr);
    }
    char* text = list_response(nullptr);
    ASSERT_NE(text, nullptr);
    EXPECT_STREQ(text, "No registered services yet.");
    free(text);
}

}  // namespace
