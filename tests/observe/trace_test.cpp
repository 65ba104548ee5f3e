#include "cli/observe/trace.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

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

std::string run_traced(const char* redact, const char* secret, const char* message) {
    FILE* sink = tmpfile();
    const int saved = dup(STDERR_FILENO);
    dup2(fileno(sink), STDERR_FILENO);
    if (redact != nullptr) {
        setenv(TRACE_REDACT_VARIABLE, redact, 1);
    }
    hide_in_trace(secret);  // before the start: the order does not matter
    start_trace(1);
    Logger.debug("%s", message);
    Logger.set_stderr_level(LOG_OFF);
    Logger.forget_secrets();
    unsetenv(TRACE_REDACT_VARIABLE);
    dup2(saved, STDERR_FILENO);
    close(saved);
    std::string text;
    rewind(sink);
    for (int c = fgetc(sink); c != EOF; c = fgetc(sink)) {
        text += static_cast<char>(c);
    }
    fclose(sink);
    return text;
}

// The key never shows, raw or as JSON writes it (quotes and backslashes
// escaped), unless SYLVANE_TRACE_REDACT=0 says it may, and then the trace
// says so.
TEST(Trace, HidesSecretsUnlessTheUserOptsOut) {
    const char* key = R"(Ab"c\d)";
    const std::string request =
        R"({"command":"add_tenant","data":{"value":"Ab\"c\\d"}} and Ab"c\d)";
    const std::string hidden = run_traced(nullptr, key, request.c_str());
    EXPECT_NE(hidden.find(R"({"value":"[redacted]"}} and [redacted])"), std::string::npos)
        << hidden;
    const std::string shown = run_traced("0", key, request.c_str());
    EXPECT_NE(shown.find("SYLVANE_TRACE_REDACT=0: secrets are shown in this trace"),
              std::string::npos);
    EXPECT_NE(shown.find(request), std::string::npos) << shown;
}

}  // namespace
