#include "core/logger.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "core/logger_clock.h"

namespace {

// What the trace keeps of a message before it marks it cut.
constexpr size_t MESSAGE_ROOM = 4095;

const std::string kStamp = "[A-Z][a-z]{2}_[0-9]{2}_[0-9]{2}_[0-9]{2}_[0-9]{2}\\.\\d{3} ";

std::string read_all(const std::filesystem::path& path) {
    std::stringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

// Lines at or above the threshold, stamped and tagged; flushed at once below info.
class LoggerThreshold : public ::testing::TestWithParam<int> {};

TEST_P(LoggerThreshold, KeepsLevelsAtOrAboveAndFlushesBelowInfo) {
    char pattern[] = "/tmp/sylv-logger-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    const std::string folder = std::string(pattern) + "/";
    ASSERT_EQ(Logger.init(folder.c_str(), "svc", static_cast<uint8_t>(GetParam())), LOGGER_OK);
    const std::vector<std::pair<void (*)(const char*, ...), std::string>> levels = {
        {Logger.trace, "[trace]"}, {Logger.debug, "[debug]"}, {Logger.info, "[info]"},
        {Logger.warn, "[warn]"},   {Logger.error, "[error]"}, {Logger.fatal, "[fatal]"}};
    std::string expected;
    for (size_t level = 0; level < levels.size(); ++level) {
        levels[level].first("m%zu", level);
        EXPECT_EQ(Logger.enabled(static_cast<uint8_t>(level)),
                  static_cast<int>(level) >= GetParam());
        if (static_cast<int>(level) >= GetParam()) {
            expected += levels[level].second + " m" + std::to_string(level) + "\n";
        }
    }
    const auto file = std::filesystem::directory_iterator(folder)->path();
    const std::string unflushed = read_all(file);
    Logger.close();
    EXPECT_FALSE(Logger.enabled(LOG_FATAL));
    EXPECT_EQ(std::regex_replace(read_all(file), std::regex(kStamp), ""), expected);
    EXPECT_EQ(unflushed.empty(), GetParam() >= 2);
    std::filesystem::remove_all(folder);
}

INSTANTIATE_TEST_SUITE_P(Levels, LoggerThreshold, ::testing::Range(0, 6));

TEST(LoggerClock, RoundsMillisecondsHalfToEvenAndCarries) {
    const time_t base = 1700051045;
    const struct {
        suseconds_t micros;
        time_t carry;
        const char* millis;
    } cases[] = {{0, 0, "000"},      {1500, 0, "002"},   {2500, 0, "002"},   {42499, 0, "042"},
                 {998500, 0, "998"}, {999499, 0, "999"}, {999500, 1, "000"}, {999600, 1, "000"}};
    for (const auto& c : cases) {
        const time_t second = base + c.carry;
        struct tm local {};
        char expected[64];
        strftime(expected, sizeof expected, "%b_%d_%H_%M_%S.", localtime_r(&second, &local));
        char out[512];
        const size_t length = format_log_stamp(timeval{base, c.micros}, out, sizeof out);
        EXPECT_EQ(std::string(out, length), std::string(expected) + c.millis) << c.micros;
    }
}

// Runs `write_lines` with standard error sent to a file; returns what it got.
template <typename WriteLines>
std::string captured_stderr(WriteLines write_lines) {
    FILE* sink = tmpfile();
    const int saved = dup(STDERR_FILENO);
    dup2(fileno(sink), STDERR_FILENO);
    write_lines();
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

// One line per call at or above the threshold, stamped and tagged, with
// what a terminal would act on escaped and the secrets hidden, raw or as
// JSON writes them; errno is the caller's afterwards.
TEST(LoggerTrace, WritesEscapedLinesWithoutSecrets) {
    const std::string key = "K3y\"with/quote";
    const std::string long_text(MESSAGE_ROOM - 6, 'x');
    const struct {
        std::string message;
        std::string line;
    } cases[] = {
        {"plain text", "[debug] plain text"},
        {"a\nb\r\tc", "[debug] a\\nb\\r\\tc"},
        {"\x1b]0;x\a", "[debug] \\x1B]0;x\\x07"},
        {"\xe2\x80\xae evil \xc2\x85 \xff \xc0\xaf",
         "[debug] \\u202E evil \\u0085 \\xFF \\xC0\\xAF"},
        {"caf\xc3\xa9 \xe2\x82\xac", "[debug] caf\xc3\xa9 \xe2\x82\xac"},
        {"key=" + key + " and again " + key + ".", "[debug] key=[redacted] and again [redacted]."},
        {R"({"value":"K3y\"with/quote"})", R"([debug] {"value":"[redacted]"})"},
        {long_text + key, "[debug] " + long_text + "[redacted] [...]"},
    };
    ASSERT_EQ(Logger.add_secret(key.c_str()), LOGGER_OK);
    ASSERT_EQ(Logger.add_secret(R"(K3y\"with/quote)"), LOGGER_OK);
    ASSERT_EQ(Logger.set_stderr_level(LOG_DEBUG), LOGGER_OK);
    const std::string text = captured_stderr([&] {
        Logger.trace("below the threshold");
        for (const auto& c : cases) {
            Logger.debug("%s", c.message.c_str());
        }
        close(STDERR_FILENO);  // the write fails
        errno = ENOMEM;
        Logger.debug("lost");
        EXPECT_EQ(errno, ENOMEM);
    });
    Logger.set_stderr_level(LOG_OFF);
    Logger.forget_secrets();
    std::istringstream lines(text);
    std::string line;
    for (const auto& c : cases) {
        ASSERT_TRUE(std::getline(lines, line));
        EXPECT_TRUE(std::regex_search(line, std::regex("^" + kStamp))) << line;
        EXPECT_EQ(std::regex_replace(line, std::regex("^" + kStamp), ""), c.line);
    }
    EXPECT_FALSE(std::getline(lines, line)) << line;
    EXPECT_EQ(captured_stderr([] { Logger.fatal("closed"); }), "");
}

}  // namespace
