#include "cli/observe/trace.h"

#include <gtest/gtest.h>

#include "core/logger.h"

namespace {

// The more detailed of --verbose's count and SYLVANE_DEBUG wins.
TEST(Trace, LevelFromVerbosityAndVariable) {
    const struct {
        int verbosity;
        const char* variable;
        int level;
    } cases[] = {
        {0, nullptr, -1},        {0, "", -1},         {0, "0", -1},        {1, nullptr, LOG_DEBUG},
        {2, nullptr, LOG_TRACE}, {5, "0", LOG_TRACE}, {0, "1", LOG_DEBUG}, {0, "yes", LOG_DEBUG},
        {0, "2", LOG_TRACE},     {1, "7", LOG_TRACE}, {2, "1", LOG_TRACE}, {0, "2x", LOG_DEBUG},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(trace_level(c.verbosity, c.variable), c.level)
            << c.verbosity << " " << (c.variable ? c.variable : "(unset)");
    }
}

}  // namespace
