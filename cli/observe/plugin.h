// check_sylvane's logic, as the Monitoring Plugins guidelines want it:
// threshold ranges, the verdict, and the one status line with performance
// data. Pure: the caller talks to the agent and prints the line.
#pragma once

#include <string>
#include <vector>

// Exit statuses.
enum PluginState : int {
    PLUGIN_OK = 0,
    PLUGIN_WARNING = 1,
    PLUGIN_CRITICAL = 2,
    PLUGIN_UNKNOWN = 3,
};

// A threshold range: "10" (0 to 10), "10:" (10 and above), "~:10" (10 and
// below), "10:20", and "@10:20" to alert inside instead of outside. Ends
// are included.
struct PluginRange {
    double start = 0;
    double end = 0;
    bool start_unbounded = false;  // "~"
    bool end_unbounded = false;    // "10:"
    bool alert_inside = false;     // "@"
    std::string text;              // as given, for the performance data
};

// 0, or -1 when `text` is not a range of decimal numbers with start <= end.
int parse_plugin_range(const char* text, PluginRange* range);

// Whether `value` raises the range's alert.
bool plugin_range_alerts(const PluginRange& range, double value);

// check_sylvane's command line, read.
struct PluginArguments {
    bool has_warning = false;
    PluginRange warning;  // -w, --warning: response time in seconds
    bool has_critical = false;
    PluginRange critical;               // -c, --critical
    double timeout_seconds = 10;        // -t, --timeout
    std::vector<std::string> services;  // --service NAME, repeatable
    bool help = false;                  // -h, --help
    bool version = false;               // -V, --version
    int verbosity = 0;                  // -v, --verbose, repeatable
};

// Reads argv (argv[0] is the program). 0, or -1 with a one-line reason in
// `error`: the caller then prints "SYLVANE UNKNOWN - <reason>" and exits 3.
int parse_plugin_arguments(int argc, char** argv, PluginArguments* arguments,
                           std::string* error) noexcept;

// How the conversation with the agent went.
enum class AgentContact {
    answered,   // the listing arrived
    refused,    // nothing listens on the port
    silent,     // no answer within the time-out
    busy,       // "please_disconnect": another client is served
    malformed,  // the answer could not be read
};

struct PluginService {
    std::string name;    // the agent's, untrusted
    std::string status;  // "connected", "in progress", "disconnected", "error", ...
};

struct PluginObservation {
    AgentContact contact = AgentContact::refused;
    double response_seconds = 0;          // answered only
    std::vector<PluginService> services;  // the listing, answered only
};

struct PluginVerdict {
    PluginState state = PLUGIN_UNKNOWN;
    // "SYLVANE OK - ..." under 80 bytes, then " | " and the performance
    // data when the agent answered; no line end.
    std::string line;
};

// The verdict: CRITICAL when the agent did not answer properly, when the
// response time crosses the critical range, or when a --service is missing,
// in error, disconnected or in any other state than connected or in
// progress; WARNING when the time crosses the warning range or a --service
// is in progress; UNKNOWN when the agent is busy; OK otherwise.
PluginVerdict plugin_verdict(const PluginArguments& arguments,
                             const PluginObservation& observation) noexcept;

// The line for arguments that could not be read: "SYLVANE UNKNOWN - <reason>".
std::string plugin_usage_line(const std::string& reason) noexcept;
