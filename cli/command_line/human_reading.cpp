// The human reading, kept as the tool has always read its command line: the
// first of -h, -l, -g, -r, -s, -d acts the moment it is read and the rest is
// ignored; long-only options are looked for in the first argument only;
// otherwise add, then edit, then proxy is chosen from what was collected,
// and anything else is the usage text.

#include <cstdlib>
#include <cstring>
#include <utility>

#include "cli/command_line/command_line.h"
#include "cli/command_line/option_table.h"
#include "cli/preflight/api_key.h"

namespace {

// What the scan collected; the later of -a/-e and of -p/-c wins.
struct Collected {
    bool add_requested;
    bool edit_requested;
    bool address_given;
    bool proxy_address_given;
    bool proxy_type_given;
    bool key_given;
};

// The reading ends: `in` is moved out, never copied.
Invocation command(Invocation& in, CommandId id) {
    in.command = id;
    return std::move(in);
}

// The long-only commands, from the first argument whatever position the
// option had; --saveTraceabilityConfig counts its words by position.
Invocation first_argument_command(Invocation& in, int argc, char** argv) {
    const char* first = argv[1];
    const struct {
        const char* name;
        CommandId id;
    } switches[] = {{"--enableProxy", CommandId::enable_proxy},
                    {"--disableProxy", CommandId::disable_proxy},
                    {"--enableAuthenticationAudit", CommandId::enable_audit},
                    {"--disableAuthenticationAudit", CommandId::disable_audit}};
    for (const auto& candidate : switches) {
        if (strcmp(first, candidate.name) == 0) {
            return command(in, candidate.id);
        }
    }
    if (strcmp(first, "--saveTraceabilityConfig") != 0) {
        return command(in, CommandId::help);
    }
    const bool console = argc == 3 && strcmp(argv[2], "console") == 0;
    const bool with_words =
        argc == 6 && (strcmp(argv[2], "file") == 0 || strcmp(argv[2], "syslog") == 0);
    if (!console && !with_words) {
        return command(in, CommandId::help);
    }
    in.traceability_target = argv[2];
    in.words.assign(argv + 3, argv + argc);
    return command(in, CommandId::save_traceability);
}

// Without -k an add takes its key from --api-key-file or SYLVANE_API_KEY;
// without any, the line is not an add.
bool has_key(const Collected& c, const Invocation& in) {
    const char* environment = getenv(API_KEY_VARIABLE);
    return c.key_given || in.api_key_file != nullptr ||
           (environment != nullptr && environment[0] != '\0');
}

// The post-scan choice: add, then edit, then proxy, else the usage.
Invocation collected_command(Invocation& in, const Collected& c) {
    const bool add_complete =
        c.add_requested && c.address_given && in.service_name != nullptr && in.address != nullptr;
    if (add_complete && has_key(c, in)) {
        return command(in, CommandId::add);
    }
    if (c.edit_requested && c.address_given && in.service_name != nullptr &&
        in.address != nullptr) {
        return command(in, CommandId::edit);
    }
    if (c.proxy_address_given && c.proxy_type_given && in.address != nullptr &&
        in.proxy_type != nullptr) {
        return command(in, CommandId::save_proxy);
    }
    return command(in, CommandId::help);
}

}  // namespace

Invocation read_humanly(int argc, char** argv) {
    Invocation in;
    if (argc < 2) {
        return in;  // the usage text
    }
    const GetoptArray& options = getopt_options(false);
    Collected c{};
    int value;
    while ((value = getopt_long(argc, argv, SHORT_OPTIONS, options.data(), nullptr)) != -1) {
        switch (value) {
            case 'a':
            case 'e':
                (value == 'a' ? c.add_requested : c.edit_requested) = true;
                in.service_name = optarg;
                break;
            case 'p':
            case 'c':
                (value == 'p' ? c.address_given : c.proxy_address_given) = true;
                in.address = optarg;
                break;
            case 'f':
                in.forwarding_port = optarg;
                break;
            case 'k':
                c.key_given = true;
                in.api_key = optarg;
                break;
            case 'u':
                in.clear_services = optarg;
                break;
            case 't':
                c.proxy_type_given = true;
                in.proxy_type = optarg;
                break;
            case OPTION_API_KEY_FILE:
                in.api_key_file = optarg;
                break;
            case OPTION_AGENT_UID:
                in.agent_uid = optarg;
                break;
            case OPTION_VERBOSE:
                break;  // counted by read_command_line
            case 'h':
            case 'l':
            case 'g':
                return command(in, option_by_value(value)->command);
            case 'r':
            case 's':
            case 'd':
                in.service_name = optarg;
                return command(
                    in, optarg != nullptr ? option_by_value(value)->command : CommandId::help);
            default:
                // The long-only commands, getopt's '?' and ':', unused letters.
                return first_argument_command(in, argc, argv);
        }
    }
    return collected_command(in, c);
}
