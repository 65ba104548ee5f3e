#include "cli/observe/plugin.h"

#include <getopt.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>

#include "cli/observe/metrics.h"
#include "core/utf8.h"

namespace {

constexpr size_t STATUS_LINE_ROOM = 79;  // bytes before " | "
constexpr size_t NAME_ROOM = 24;         // bytes of one untrusted name in the line
constexpr double TIMEOUT_LIMIT = 3600;
constexpr int OPTION_SERVICE = 1001;
constexpr const char* AGENT_ADDRESS = "127.0.0.1:11038";

const char* const STATE_WORDS[] = {"OK", "WARNING", "CRITICAL", "UNKNOWN"};

// Whether `text` is a plain decimal number: optional sign, digits, at most
// one point, at least one digit. strtod alone would take "inf", "nan" or hex.
bool is_decimal(const char* text, size_t length) {
    size_t i = length > 0 && (text[0] == '+' || text[0] == '-') ? 1 : 0;
    bool digits = false;
    bool point = false;
    for (; i < length; ++i) {
        if (text[i] >= '0' && text[i] <= '9') {
            digits = true;
        } else if (text[i] == '.' && !point) {
            point = true;
        } else {
            return false;
        }
    }
    return digits;
}

// Reads the decimal of `length` bytes at `text` into *value.
bool read_decimal(const char* text, size_t length, double* value) {
    char copy[64];
    if (length >= sizeof copy || !is_decimal(text, length)) {
        return false;
    }
    memcpy(copy, text, length);
    copy[length] = '\0';
    *value = strtod(copy, nullptr);
    return true;
}

// `text` fit for the status line: what a terminal or a monitor would act on
// ('|' starts the performance data) becomes '?', and it is cut to `room`
// bytes with "..." at a character boundary.
std::string line_safe(const std::string& text, size_t room) {
    std::string out;
    const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
    for (size_t i = 0; i < text.size();) {
        uint32_t code_point = 0;
        const size_t sequence = utf8_sequence(bytes + i, text.size() - i, &code_point);
        const bool unsafe = sequence == 0 || utf8_is_control(code_point) || code_point == '|';
        const size_t width = unsafe ? 1 : sequence;  // bytes it takes in the line
        if (out.size() + width > room - 3 && text.size() - i > room - out.size()) {
            return out + "...";
        }
        if (unsafe) {
            out += '?';
        } else {
            out.append(text, i, sequence);
        }
        i += sequence != 0 ? sequence : 1;
    }
    return out;
}

// "SYLVANE <STATE> - <text>", the text cut to fit the room.
std::string status_text(PluginState state, const std::string& text) {
    const std::string head = std::string("SYLVANE ") + STATE_WORDS[state] + " - ";
    return head + line_safe(text, STATUS_LINE_ROOM - head.size());
}

std::string seconds_text(double seconds) {
    char text[64];
    snprintf(text, sizeof text, "%.3f s", seconds);
    return text;
}

// The status line's problem for one --service, or empty when it is fine.
// Raises *state as needed.
std::string service_problem(const std::string& name, const PluginObservation& observation,
                            PluginState* state) {
    const PluginService* found = nullptr;
    for (const PluginService& service : observation.services) {
        if (service.name == name) {
            found = &service;
            break;
        }
    }
    const std::string shown = line_safe(name, NAME_ROOM);
    if (found != nullptr && found->status == "connected") {
        return std::string();
    }
    if (found != nullptr && found->status == "in progress") {
        *state = *state == PLUGIN_CRITICAL ? PLUGIN_CRITICAL : PLUGIN_WARNING;
        return shown + " enabling";
    }
    *state = PLUGIN_CRITICAL;
    if (found == nullptr) {
        return shown + " missing";
    }
    return shown + " " + (found->status.empty() ? "disabled" : line_safe(found->status, NAME_ROOM));
}

// 'time' with its thresholds, then the services per status.
std::string performance_data(const PluginArguments& arguments,
                             const PluginObservation& observation) {
    char time[160];
    snprintf(time, sizeof time, "'time'=%.6fs;%s;%s;0;%g", observation.response_seconds,
             arguments.has_warning ? arguments.warning.text.c_str() : "",
             arguments.has_critical ? arguments.critical.text.c_str() : "",
             arguments.timeout_seconds);
    std::string out = time;
    size_t counts[std::size(METRICS_STATUSES)] = {};
    for (const PluginService& service : observation.services) {
        size_t i = 0;
        while (i + 1 < std::size(METRICS_STATUSES) && service.status != METRICS_STATUSES[i]) {
            ++i;
        }
        ++counts[i];
    }
    for (size_t i = 0; i < std::size(METRICS_STATUSES); ++i) {
        std::string label = std::string("services_") + METRICS_STATUSES[i];
        for (char& c : label) {
            c = c == ' ' ? '_' : c;
        }
        out += " '" + label + "'=" + std::to_string(counts[i]) + ";;;0";
    }
    return out;
}

PluginVerdict answered_verdict(const PluginArguments& arguments,
                               const PluginObservation& observation) {
    PluginState state = PLUGIN_OK;
    std::string critical_problems;
    std::string warning_problems;
    for (const std::string& name : arguments.services) {
        PluginState raised = PLUGIN_OK;
        const std::string problem = service_problem(name, observation, &raised);
        std::string& list = raised == PLUGIN_CRITICAL ? critical_problems : warning_problems;
        if (!problem.empty()) {
            list += (list.empty() ? "" : ", ") + problem;
            state = raised > state ? raised : state;
        }
    }
    const double seconds = observation.response_seconds;
    std::string timing = "answered in " + seconds_text(seconds);
    if (arguments.has_critical && plugin_range_alerts(arguments.critical, seconds)) {
        state = PLUGIN_CRITICAL;
        timing =
            "answer took " + seconds_text(seconds) + " (critical " + arguments.critical.text + ")";
    } else if (arguments.has_warning && plugin_range_alerts(arguments.warning, seconds)) {
        state = state == PLUGIN_CRITICAL ? PLUGIN_CRITICAL : PLUGIN_WARNING;
        timing =
            "answer took " + seconds_text(seconds) + " (warning " + arguments.warning.text + ")";
    }
    size_t connected = 0;
    for (const PluginService& service : observation.services) {
        connected += service.status == "connected" ? 1 : 0;
    }
    std::string problems = critical_problems;
    problems += (problems.empty() || warning_problems.empty() ? "" : ", ") + warning_problems;
    const std::string text = (problems.empty() ? "" : problems + "; ") + timing + ", " +
                             std::to_string(connected) + " of " +
                             std::to_string(observation.services.size()) + " services connected";
    return PluginVerdict{
        state, status_text(state, text) + " | " + performance_data(arguments, observation)};
}

PluginVerdict unanswered_verdict(const PluginArguments& arguments, AgentContact contact) {
    char text[128];
    PluginState state = PLUGIN_CRITICAL;
    switch (contact) {
        case AgentContact::refused:
            snprintf(text, sizeof text, "no agent listening on %s", AGENT_ADDRESS);
            break;
        case AgentContact::silent:
            snprintf(text, sizeof text, "no answer from the agent within %g s",
                     arguments.timeout_seconds);
            break;
        case AgentContact::busy:
            state = PLUGIN_UNKNOWN;
            snprintf(text, sizeof text, "agent busy with another client");
            break;
        default:
            snprintf(text, sizeof text, "the agent's answer could not be read");
            break;
    }
    return PluginVerdict{state, status_text(state, text)};
}

// Applies one option of getopt_long to `arguments`. Empty, or the reason
// it cannot be used.
std::string apply_option(int option, const char* value, PluginArguments* arguments) {
    switch (option) {
        case 'w':
        case 'c': {
            PluginRange& range = option == 'w' ? arguments->warning : arguments->critical;
            (option == 'w' ? arguments->has_warning : arguments->has_critical) = true;
            if (parse_plugin_range(value, &range) != 0) {
                return std::string(option == 'w' ? "bad warning" : "bad critical") +
                       " threshold '" + value + "'";
            }
            return std::string();
        }
        case 't':
            if (!read_decimal(value, strlen(value), &arguments->timeout_seconds) ||
                arguments->timeout_seconds <= 0 || arguments->timeout_seconds > TIMEOUT_LIMIT) {
                return std::string("bad time-out '") + value + "' (seconds, up to 3600)";
            }
            return std::string();
        case OPTION_SERVICE:
            if (value[0] == '\0') {
                return "--service needs a name";
            }
            arguments->services.emplace_back(value);
            return std::string();
        case 'h':
            arguments->help = true;
            return std::string();
        case 'V':
            arguments->version = true;
            return std::string();
        case 'v':
            ++arguments->verbosity;
            return std::string();
        default:
            return "unknown option";
    }
}

int read_arguments(int argc, char** argv, PluginArguments* arguments, std::string* error) {
    static const option LONG_OPTIONS[] = {
        {"warning", required_argument, nullptr, 'w'},
        {"critical", required_argument, nullptr, 'c'},
        {"timeout", required_argument, nullptr, 't'},
        {"service", required_argument, nullptr, OPTION_SERVICE},
        {"help", no_argument, nullptr, 'h'},
        {"version", no_argument, nullptr, 'V'},
        {"verbose", no_argument, nullptr, 'v'},
        {nullptr, 0, nullptr, 0},
    };
    *arguments = PluginArguments();
    opterr = 0;  // the reason goes into the status line instead
    optind = 0;  // a fresh scan, also when called again
    for (;;) {
        const int option = getopt_long(argc, argv, ":w:c:t:hVv", LONG_OPTIONS, nullptr);
        if (option == -1) {
            break;
        }
        if (option == ':' || option == '?') {
            // optopt names a short option; a long one is the argument just read.
            const char* word = argv[optind - 1];
            const std::string name = strncmp(word, "--", 2) == 0
                                         ? std::string(word)
                                         : std::string("-") + static_cast<char>(optopt);
            *error = (option == ':' ? "missing value for " : "unknown option ") + name;
            return -1;
        }
        *error = apply_option(option, optarg, arguments);
        if (!error->empty()) {
            return -1;
        }
    }
    if (optind < argc) {
        *error = std::string("unexpected argument '") + argv[optind] + "'";
        return -1;
    }
    return 0;
}

}  // namespace

int parse_plugin_range(const char* text, PluginRange* range) {
    if (text == nullptr) {
        return -1;
    }
    PluginRange read;
    read.text = text;
    const char* start = text;
    if (*start == '@') {
        read.alert_inside = true;
        ++start;
    }
    const char* colon = strchr(start, ':');
    const char* end = colon == nullptr ? start : colon + 1;
    if (colon != nullptr) {
        const size_t start_length = static_cast<size_t>(colon - start);
        read.start_unbounded = start_length == 1 && *start == '~';
        if (!read.start_unbounded && start_length > 0 &&
            !read_decimal(start, start_length, &read.start)) {
            return -1;
        }
        read.end_unbounded = *end == '\0';
    }
    if (!read.end_unbounded && !read_decimal(end, strlen(end), &read.end)) {
        return -1;
    }
    if (!read.start_unbounded && !read.end_unbounded && read.start > read.end) {
        return -1;
    }
    *range = read;
    return 0;
}

bool plugin_range_alerts(const PluginRange& range, double value) {
    const bool inside = (range.start_unbounded || value >= range.start) &&
                        (range.end_unbounded || value <= range.end);
    return range.alert_inside ? inside : !inside;
}

int parse_plugin_arguments(int argc, char** argv, PluginArguments* arguments,
                           std::string* error) noexcept {
    try {
        return read_arguments(argc, argv, arguments, error);
    } catch (const std::exception&) {
        return -1;
    }
}

PluginVerdict plugin_verdict(const PluginArguments& arguments,
                             const PluginObservation& observation) noexcept {
    try {
        if (observation.contact != AgentContact::answered) {
            return unanswered_verdict(arguments, observation.contact);
        }
        return answered_verdict(arguments, observation);
    } catch (const std::exception&) {
        return PluginVerdict{PLUGIN_UNKNOWN, "SYLVANE UNKNOWN - out of memory"};
    }
}

std::string plugin_usage_line(const std::string& reason) noexcept {
    try {
        return status_text(PLUGIN_UNKNOWN, reason);
    } catch (const std::exception&) {
        return std::string();
    }
}
