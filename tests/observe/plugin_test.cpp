#include "cli/observe/plugin.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

// Which values each range alerts on, and which texts are no range at all.
TEST(PluginRange, AlertsOutsideOrInsideAsTheGuidelinesSay) {
    const struct {
        const char* text;
        std::vector<double> alert;
        std::vector<double> quiet;
    } cases[] = {
        {"10", {-0.001, 10.001, 11}, {0, 5, 10}},
        {"0.5", {0.51}, {0, 0.5}},
        {"10:", {9.999, -1}, {10, 1e9}},
        {"~:10", {10.5}, {-1e9, 10}},
        {"10:20", {9, 21}, {10, 15, 20}},
        {"@10:20", {10, 15, 20}, {9.9, 20.1}},
        {":3", {-1, 4}, {0, 3}},
        {"@~:2", {-5, 2}, {2.1}},
    };
    for (const auto& c : cases) {
        PluginRange range;
        ASSERT_EQ(parse_plugin_range(c.text, &range), 0) << c.text;
        for (double value : c.alert) {
            EXPECT_TRUE(plugin_range_alerts(range, value)) << c.text << " " << value;
        }
        for (double value : c.quiet) {
            EXPECT_FALSE(plugin_range_alerts(range, value)) << c.text << " " << value;
        }
    }
    for (const char* bad : {"", "@", "x", "1x", "20:10", "inf", "nan", "0x10", "1e3", "~", "1:2:3",
                            "--1", "1..2", "~:~"}) {
        PluginRange range;
        EXPECT_EQ(parse_plugin_range(bad, &range), -1) << bad;
    }
}

int parse(std::vector<std::string> words, PluginArguments* arguments, std::string* error) {
    words.insert(words.begin(), "check_sylvane");
    std::vector<char*> argv;
    for (std::string& word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    return parse_plugin_arguments(static_cast<int>(words.size()), argv.data(), arguments, error);
}

// Short and long forms, repeated --service; every bad argument gets a
// reason that names it, for the UNKNOWN line.
TEST(PluginArguments, ReadsTheGuidelinesOptions) {
    PluginArguments arguments;
    std::string error;
    ASSERT_EQ(
        parse({"-w", "0.5", "--critical=2", "-t", "3", "--service", "web", "--service=db", "-vv"},
              &arguments, &error),
        0)
        << error;
    EXPECT_TRUE(arguments.has_warning && arguments.has_critical);
    EXPECT_EQ(arguments.warning.end, 0.5);
    EXPECT_EQ(arguments.critical.text, "2");
    EXPECT_EQ(arguments.timeout_seconds, 3);
    EXPECT_EQ(arguments.services, (std::vector<std::string>{"web", "db"}));
    EXPECT_EQ(arguments.verbosity, 2);
    const struct {
        std::vector<std::string> words;
        const char* error;
    } bad[] = {
        {{"-w", "x"}, "bad warning threshold 'x'"},
        {{"-c", "5:1"}, "bad critical threshold '5:1'"},
        {{"-t", "0"}, "bad time-out '0' (seconds, up to 3600)"},
        {{"-t", "4000"}, "bad time-out '4000' (seconds, up to 3600)"},
        {{"-w"}, "missing value for -w"},
        {{"--service"}, "missing value for --service"},
        {{"--service="}, "--service needs a name"},
        {{"-x"}, "unknown option -x"},
        {{"--host=a"}, "unknown option --host=a"},
        {{"web"}, "unexpected argument 'web'"},
    };
    for (const auto& c : bad) {
        EXPECT_EQ(parse(c.words, &arguments, &error), -1) << c.error;
        EXPECT_EQ(error, c.error);
    }
}

PluginObservation answered(double seconds, std::vector<PluginService> services) {
    return PluginObservation{AgentContact::answered, seconds, std::move(services)};
}

// A name from the agent cannot add a line, reach the performance data or
// push the status past 79 bytes.
TEST(PluginVerdict, UntrustedNamesStayInsideTheStatusText) {
    const std::string name = "x|y\n\x1b[2J\xe2\x80\xae" + std::string(200, 'z');
    std::string argument = "--service=" + name;
    char* argv[] = {const_cast<char*>("check_sylvane"), argument.data(), nullptr};
    PluginArguments arguments;
    std::string error;
    ASSERT_EQ(parse_plugin_arguments(2, argv, &arguments, &error), 0);
    const PluginVerdict verdict =
        plugin_verdict(arguments, answered(0.1, {{name, "\nfake|status"}}));
    EXPECT_EQ(verdict.state, PLUGIN_CRITICAL);
    const std::string status = verdict.line.substr(0, verdict.line.find(" | "));
    EXPECT_LE(status.size(), 79u);
    EXPECT_EQ(status.find_first_of("|\n\x1b"), std::string::npos) << status;
    EXPECT_EQ(status.rfind("SYLVANE CRITICAL - x?y??[2J?zzzz", 0), 0u) << status;
    EXPECT_EQ(plugin_usage_line("bad warning threshold 'a|b'"),
              "SYLVANE UNKNOWN - bad warning threshold 'a?b'");
}

}  // namespace
