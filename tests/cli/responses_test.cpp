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

struct NullDataCase {
    const char* label;
    ResponseCallback callback;
    const char* message;  // on standard error, status 1
};

class NullDataFails : public testing::TestWithParam<NullDataCase> {};

TEST_P(NullDataFails, WithItsOwnMessage) {
    const NullDataCase& c = GetParam();
    EXPECT_EXIT(c.callback(nullptr), testing::ExitedWithCode(1),
                testing::Eq(std::string(c.message)));
}

INSTANTIATE_TEST_SUITE_P(
    Responses, NullDataFails,
    testing::Values(
        NullDataCase{"add", add_response, "An error occurred while adding service.\n"},
        NullDataCase{"edit", edit_response, "An error occurred while editing service.\n"},
        NullDataCase{"remove", remove_response, "An error occurred while removing service.\n"},
        NullDataCase{"get_proxy", get_proxy_response,
                     "An error occurred while trying to get proxy configuration.\n"},
        NullDataCase{"set_proxy", set_proxy_response,
                     "An error occurred while trying to set proxy.\n"},
        NullDataCase{"save_proxy", save_proxy_response,
                     "An error occurred while trying to save proxy configuration.\n"},
        NullDataCase{"traceability", traceability_response,
                     "An error occurred while trying to save traceability configuration.\n"},
        NullDataCase{"enable", enable_response, "An error occurred while enabling service.\n"},
        NullDataCase{"disable", disable_response, "An error occurred while disabling service.\n"}),
    [](const testing::TestParamInfo<NullDataCase>& param_info) { return param_info.param.label; });

class NullEventIgnored : public testing::TestWithParam<ResponseCallback> {};

TEST_P(NullEventIgnored, KeepsWaiting) {
    EXPECT_EQ(GetParam()(nullptr), nullptr);
}

INSTANTIATE_TEST_SUITE_P(EventHandlers, NullEventIgnored,
                         testing::Values(add_event_handler, enable_event_handler,
                                         disable_event_handler));

TEST(ListResponse, NullDataListsNothing) {
    char* text = list_response(nullptr);
    ASSERT_NE(text, nullptr);
    EXPECT_STREQ(text, "No registered services yet.");
    free(text);
}

}  // namespace
