#include "core/logger.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <ctime>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "core/logger_clock.h"

namespace fs = std::filesystem;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

const std::string kStamp = "[A-Z][a-z]{2}_[0-9]{2}_[0-9]{2}_[0-9]{2}_[0-9]{2}";

std::string read_all(const fs::path& path) {
    std::stringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

class LoggerTest : public ::testing::TestWithParam<int> {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/sylv-logger-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        root_ = pattern;
        folder_ = root_ + "/logs/";
    }
    void TearDown() override {
        Logger.close();
        fs::remove_all(root_);
    }
    std::vector<fs::path> files() const {
        std::vector<fs::path> found;
        for (const auto& entry : fs::directory_iterator(folder_))
            found.push_back(entry.path());
        return found;
    }
    int32_t quiet_init(const std::string& folder, const std::string& name, uint8_t level) {
        CaptureStdout();
        const int32_t status = Logger.init(folder.c_str(), name.c_str(), level);
        GetCapturedStdout();
        return status;
    }
    std::string root_;
    std::string folder_;
};

TEST_F(LoggerTest, CreatesFolderAndWritesStampedLines) {
    Logger.error("dropped before init");
    CaptureStdout();
    ASSERT_EQ(Logger.init(folder_.c_str(), "svc", 2), 0);
    EXPECT_EQ(GetCapturedStdout(), "Folder " + folder_ + " does not exist. let's create it.");
    const mode_t mask = umask(0);
    umask(mask);
    EXPECT_EQ(fs::status(folder_).permissions(), fs::perms(0775 & ~mask));

    EXPECT_EQ(Logger.init((root_ + "/").c_str(), "other", 0), 0);  // first file kept
    Logger.error("value %d of %s", 7, "x");
    Logger.info("%s", std::string(2000, 'z').c_str());
    const auto names = files();
    ASSERT_EQ(names.size(), 1u);
    EXPECT_TRUE(std::regex_match(names[0].filename().string(), std::regex(kStamp + "_svc\\.log")));
    Logger.close();
    const std::string text = read_all(names[0]);
    EXPECT_TRUE(std::regex_match(text, std::regex(kStamp + "\\.\\d{3} \\[error\\] value 7 of x\n" +
                                                  kStamp + "\\.\\d{3} \\[info\\] z+\n")));
    EXPECT_EQ(text.size(), 41u + 1023u + 1u);  // second line cut to its 1024-byte buffer
}

TEST_P(LoggerTest, ThresholdKeepsLevelsAtOrAboveAndFlushesBelowInfo) {
    ASSERT_EQ(quiet_init(folder_, "svc", static_cast<uint8_t>(GetParam())), 0);
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
    const std::string unflushed = read_all(files().at(0));
    Logger.close();
    EXPECT_EQ(std::regex_replace(read_all(files().at(0)), std::regex(kStamp + "\\.\\d{3} "), ""),
              expected);
    EXPECT_EQ(unflushed.empty(), GetParam() >= 2);
}

INSTANTIATE_TEST_SUITE_P(Levels, LoggerTest, ::testing::Range(0, 6));

TEST_F(LoggerTest, FolderWithoutSlashLeavesHalfInitialisedLogger) {
    EXPECT_EQ(Logger.init((root_ + "/logs").c_str(), "svc", 2), -1);
    Logger.trace("formatted, then refused by the file layer");
    EXPECT_EQ(quiet_init(folder_, "svc", 2), 0);
    EXPECT_FALSE(fs::exists(folder_));
    Logger.close();
    EXPECT_EQ(quiet_init(folder_, "svc", 2), 0);
    EXPECT_EQ(files().size(), 1u);
}

TEST_F(LoggerTest, PathCapacityIsExactly4096) {
    ASSERT_TRUE(fs::create_directory(folder_));
    const std::string fits(4096 - folder_.size() - 15 - 1 - 4, 'n');  // stamp, "_", ".log"
    EXPECT_EQ(Logger.init(folder_.c_str(), (fits + "n").c_str(), 2), -3);
    // Passes the capacity test; the file system then refuses the name.
    EXPECT_EQ(Logger.init(folder_.c_str(), fits.c_str(), 2), -4);
    EXPECT_EQ(Logger.init(folder_.c_str(), "svc", 2), 0);  // uninitialised after both
    EXPECT_EQ(files().size(), 1u);
}

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
