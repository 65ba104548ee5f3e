#include "core/logger.h"

#include <gtest/gtest.h>

#include <ctime>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "core/logger_clock.h"

namespace {

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
        if (static_cast<int>(level) >= GetParam()) {
            expected += levels[level].second + " m" + std::to_string(level) + "\n";
        }
    }
    const auto file = std::filesystem::directory_iterator(folder)->path();
    const std::string unflushed = read_all(file);
    Logger.close();
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

}  // namespace
