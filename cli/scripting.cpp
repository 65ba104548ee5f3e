#include "cli/scripting.h"

#include <getopt.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "cli/agent_listener.h"
#include "cli/api_key.h"
#include "cli/commands.h"
#include "cli/options.h"
#include "cli/report.h"
#include "cli/run_state.h"
#include "cli/watch.h"

#ifndef SYLV_TOOL_VERSION
#error "SYLV_TOOL_VERSION must come from the build"
#endif

namespace {

// getopt values of the scripting options, and of the human interface's
// long-only options (LONG_ONLY_BASE + their index) in the strict reading.
enum ScriptingValue : int {
    OPTION_JSON = 1100,
    OPTION_VERSION,
    OPTION_EVENTS,
    OPTION_WAIT,
    OPTION_NO_WAIT,
    OPTION_CHECK,
    LONG_ONLY_BASE = 1200,
};

constexpr struct option SCRIPTING_OPTIONS[] = {
    {"json", no_argument, nullptr, OPTION_JSON},
    {"version", no_argument, nullptr, OPTION_VERSION},
    {"events", no_argument, nullptr, OPTION_EVENTS},
    {"wait", required_argument, nullptr, OPTION_WAIT},
    {"no-wait", no_argument, nullptr, OPTION_NO_WAIT},
    {"check", no_argument, nullptr, OPTION_CHECK},
};

constexpr int64_t WAIT_LIMIT = 86400;
constexpr const char* ALLOCATION_FAILURE = "Unable to allocate memory.\n";

constexpr size_t OPTIONS_CAPACITY = 48;
constexpr int STACK_ARGUMENTS = 64;

// The human options with distinct values for the long-only ones, then the
// scripting options, then the all-zero end. Built on the stack: the human
// interface's runs allocate what they always did.
using AllOptions = std::array<struct option, OPTIONS_CAPACITY>;

AllOptions all_options() {
    AllOptions options{};
    size_t count = 0;
    constexpr size_t human_room = OPTIONS_CAPACITY - std::size(SCRIPTING_OPTIONS) - 1;
    for (const struct option* o = human_long_options(); o->name != nullptr && count < human_room;
         o++) {
        options[count] = *o;
        if (o->val == 0) {
            options[count].val = LONG_ONLY_BASE + static_cast<int>(count);
        }
        count++;
    }
    for (const struct option& o : SCRIPTING_OPTIONS) {
        options[count++] = o;
    }
    return options;  // the rest stays all-zero
}

// Everything the command line said, before anything runs.
struct Invocation {
    int command;  // short letter, or a ScriptingValue / long-only value
    int command_count;
    const char* command_argument;
    const char* service_name;  // -a or -e
    const char* address;       // -p or -c
    const char* forwarding_port;
    const char* api_key;
    const char* clear_services;
    const char* proxy_type;
    const char* api_key_file;  // --api-key-file
    const char* agent_uid;     // --agent-uid
    std::string given;         // letters of -p -f -k -u -t, as met
    bool json;
    bool no_wait;
    const char* wait;
    bool getopt_failed;
    std::vector<const char*> words;  // operands, in order
};

void set_command(Invocation* in, int command, const char* argument) {
    in->command = command;
    in->command_count++;
    in->command_argument = argument;
}

void take(Invocation* in, int value) {
    switch (value) {
        case 'a':
        case 'e':
            in->service_name = optarg;
            set_command(in, value, optarg);
            return;
        case 'c':
            in->address = optarg;
            set_command(in, value, optarg);
            return;
        case 'p':
            in->address = optarg;
            break;
        case 'f':
            in->forwarding_port = optarg;
            break;
        case 'k':
            in->api_key = optarg;
            break;
        case 'u':
            in->clear_services = optarg;
            break;
        case 't':
            in->proxy_type = optarg;
            break;
        case OPTION_JSON:
            in->json = true;
            return;
        case OPTION_WAIT:
            in->wait = optarg;
            return;
        case OPTION_NO_WAIT:
            in->no_wait = true;
            return;
        case OPTION_API_KEY_FILE:
            in->api_key_file = optarg;
            return;
        case OPTION_AGENT_UID:
            in->agent_uid = optarg;
            AgentListener.allow_uid(optarg);
            return;
        case '?':
        case ':':
            in->getopt_failed = true;
            return;
        default:
            // h l g r s d, the long-only commands, --events, --check, --version.
            if ((value < OPTION_JSON && strchr("hlgrsd", value) != nullptr) ||
                value >= OPTION_VERSION) {
                set_command(in, value, optarg);
            } else {
                in->getopt_failed = true;  // a letter the tool does not use
            }
            return;
    }
    in->given += static_cast<char>(value);
}

int long_only_value(const AllOptions& options, const char* name) {
    for (const struct option& o : options) {
        if (o.name != nullptr && strcmp(o.name, name) == 0) {
            return o.val;
        }
    }
    return -1;
}

[[noreturn]] void usage_error(const std::string& reason) {
    if (json_mode()) {
        fail(Failure::usage, (reason + "\n").c_str());
    }
    fprintf(stderr, "%s\n", reason.c_str());
    print_usage();
    exit(2);
}

// The options each command may take: required letters, then allowed ones.
struct CommandShape {
    int command;
    const char* required;
    const char* allowed;
    bool waits;     // --wait
    bool requests;  // --no-wait
};

constexpr CommandShape SHAPES[] = {
    {'a', "pk", "pkfu", true, false}, {'e', "p", "pf", false, false},
    {'c', "t", "t", false, false},    {'s', "", "", true, true},
    {'d', "", "", true, true},        {OPTION_EVENTS, "", "", true, false},
};

CommandShape shape_of(int command) {
    for (const CommandShape& shape : SHAPES) {
        if (shape.command == command) {
            return shape;
        }
    }
    return {command, "", "", false, false};
}

// Words after --saveTraceabilityConfig's target: console 0, file and syslog 3.
size_t expected_words(const Invocation& in, int traceability) {
    if (in.command != traceability) {
        return 0;
    }
    return strcmp(in.command_argument, "console") == 0 ? 0 : 3;
}

void check_shape(const Invocation& in, int traceability) {
    if (in.getopt_failed) {
        usage_error("The command line holds an unknown or incomplete option.");
    }
    if (in.command_count != 1) {
        usage_error("Expected exactly one command.");
    }
    const CommandShape shape = shape_of(in.command);
    for (char letter : in.given) {
        if (strchr(shape.allowed, letter) == nullptr) {
            usage_error(std::string("Option -") + letter + " is not used by this command.");
        }
    }
    for (const char* letter = shape.required; *letter != '\0'; letter++) {
        if (in.given.find(*letter) == std::string::npos) {
            usage_error(std::string("This command needs -") + *letter + ".");
        }
    }
    if (in.command == traceability && strcmp(in.command_argument, "console") != 0 &&
        strcmp(in.command_argument, "file") != 0 && strcmp(in.command_argument, "syslog") != 0) {
        usage_error("Unknown traceability target '" + std::string(in.command_argument) + "'.");
    }
    if (in.words.size() != expected_words(in, traceability)) {
        usage_error(in.words.empty() ? "Missing arguments."
                                     : "Unexpected argument '" + std::string(in.words[0]) + "'.");
    }
    if ((in.wait != nullptr && !shape.waits) || (in.no_wait && !shape.requests)) {
        usage_error("--wait and --no-wait apply to -a, -s, -d and --events only.");
    }
    if (in.wait != nullptr && in.no_wait) {
        usage_error("--wait and --no-wait cannot be combined.");
    }
}

// A whole number of seconds, 1 to a day.
int64_t wait_seconds(const char* text) {
    char* end = nullptr;
    long long seconds = strtoll(text, &end, 10);
    if (end == text || *end != '\0' || seconds < 1 || seconds > WAIT_LIMIT) {
        fail(Failure::bad_argument,
             "Bad value for --wait. Expected a whole number of seconds from 1 to 86400.\n");
    }
    return seconds;
}

void print_version() {
    if (json_mode()) {
        report_success(nullptr, JsonWriter().text("tool_version", SYLV_TOOL_VERSION));
    } else {
        puts("sylvane-service " SYLV_TOOL_VERSION);
    }
}

void print_help() {
    if (json_mode()) {
        report_success(nullptr, JsonWriter().text("usage", usage_text()));
    } else {
        print_usage();
    }
}

// Runs the traceability command with its operands.
void save_traceability(const Invocation& in) {
    const char* target = in.command_argument;
    const char* const* w = in.words.data();
    if (strcmp(target, "console") == 0) {
        save_traceability_config(target, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
    } else if (strcmp(target, "file") == 0) {
        save_traceability_config(target, w[0], w[1], w[2], nullptr, nullptr, nullptr);
    } else {
        save_traceability_config(target, nullptr, nullptr, nullptr, w[0], w[1], w[2]);
    }
}

void dispatch(const Invocation& in, const AllOptions& options) {
    const int command = in.command;
    if (command == long_only_value(options, "saveTraceabilityConfig")) {
        save_traceability(in);
    } else if (command == long_only_value(options, "enableProxy") ||
               command == long_only_value(options, "disableProxy")) {
        set_proxy_state(command == long_only_value(options, "enableProxy") ? 1 : 0);
    } else if (command == long_only_value(options, "enableAuthenticationAudit") ||
               command == long_only_value(options, "disableAuthenticationAudit")) {
        set_authentication_audit_state(
            command == long_only_value(options, "enableAuthenticationAudit") ? 1 : 0);
    } else {
        switch (command) {
            case 'h':
                print_help();
                break;
            case 'l':
                list_services();
                break;
            case 'g':
                get_proxy_config();
                break;
            case 'r':
                remove_service(in.command_argument);
                break;
            case 's':
                enable_service(in.command_argument);
                break;
            case 'd':
                disable_service(in.command_argument);
                break;
            case 'a':
                add_service(in.service_name, in.address, in.forwarding_port,
                            in.api_key != nullptr ? in.api_key : ApiKey.resolve(in.api_key_file),
                            in.clear_services);
                break;
            case 'e':
                edit_service(in.service_name, in.address, in.forwarding_port);
                break;
            case 'c':
                save_proxy_config(in.address, in.proxy_type);
                break;
            case OPTION_VERSION:
                print_version();
                break;
            case OPTION_EVENTS:
                watch_events();
                break;
            case OPTION_CHECK:
                check_agent();
                break;
            default:
                usage_error("Expected exactly one command.");
        }
    }
}

// getopt permutes what it reads: the scan reads a copy, so the human reading
// later sees argv as it came.
bool scan_for_scripting(int argc, char** argv) {
    AllOptions options = all_options();
    char* on_stack[STACK_ARGUMENTS];
    char** copy = argc <= STACK_ARGUMENTS
                      ? on_stack
                      : static_cast<char**>(malloc(sizeof(char*) * static_cast<size_t>(argc)));
    if (copy == nullptr) {
        fail(Failure::internal, ALLOCATION_FAILURE);
    }
    memcpy(copy, argv, sizeof(char*) * static_cast<size_t>(argc));
    const int reporting = opterr;
    opterr = 0;
    optind = 0;
    bool found = false;
    int value;
    while ((value = getopt_long(argc, copy, SHORT_OPTIONS, options.data(), nullptr)) != -1) {
        found = found || (value >= OPTION_JSON && value <= OPTION_CHECK);
    }
    opterr = reporting;
    optind = 0;
    if (copy != on_stack) {
        free(copy);
    }
    return found;
}

int run_strictly(int argc, char** argv) {
    AllOptions options = all_options();
    Invocation in{};
    int value;
    while ((value = getopt_long(argc, argv, SHORT_OPTIONS, options.data(), nullptr)) != -1) {
        take(&in, value);
    }
    for (int i = optind; i < argc; i++) {
        in.words.push_back(argv[i]);
    }
    RunState& state = run_state();
    state.json = in.json;
    state.scripting = true;
    state.stop_when_unreachable = in.json;
    // A key from a file or the environment stands for -k; only an add takes one.
    if (in.command == 'a' && in.api_key == nullptr &&
        (in.api_key_file != nullptr || ApiKey.resolve(nullptr) != nullptr)) {
        in.given += 'k';
    }
    check_shape(in, long_only_value(options, "saveTraceabilityConfig"));
    if ((in.api_key_file != nullptr || in.agent_uid != nullptr) && in.command != 'a') {
        usage_error("--api-key-file and --agent-uid apply to -a only.");
    }
    state.no_wait = in.no_wait;
    state.wait_seconds = in.wait != nullptr ? wait_seconds(in.wait) : 0;
    dispatch(in, options);
    return 0;
}

}  // namespace

bool wants_scripting(int argc, char** argv) {
    return scan_for_scripting(argc, argv);
}

// The strict reading allocates; running out of memory there is reported,
// never thrown at main. (Callbacks run from the loop never throw.)
int run_scripting(int argc, char** argv) {
    try {
        return run_strictly(argc, argv);
    } catch (const std::bad_alloc&) {
        fail(Failure::internal, ALLOCATION_FAILURE);
    }
}
