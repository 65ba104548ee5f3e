// The strict reading, selected by any scripting option: every option is
// collected first, wherever it stands, and the operands are kept; the
// command rows then judge the whole (cli/commands/strict_rules.cpp).

#include <cstdlib>
#include <cstring>
#include <vector>

#include "cli/command_line/command_line.h"
#include "cli/command_line/option_table.h"
#include "cli/preflight/api_key.h"

namespace {

constexpr int STACK_ARGUMENTS = 64;

void name_command(Invocation* in, CommandId id) {
    in->command = id;
    in->commands_named++;
}

void take(Invocation* in, int value) {
    const OptionRow* row = option_by_value(value);
    if (row == nullptr) {
        in->unreadable = true;  // '?', ':' or a letter the tool does not use
        return;
    }
    switch (value) {
        case 'a':
        case 'e':
        case 'r':
        case 's':
        case 'd':
            in->service_name = optarg;
            break;
        case 'p':
        case 'c':
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
        case OPTION_SAVE_TRACEABILITY:
            in->traceability_target = optarg;
            break;
        case OPTION_API_KEY_FILE:
            in->api_key_file = optarg;
            break;
        case OPTION_AGENT_UID:
            in->agent_uid = optarg;
            break;
        case OPTION_JSON:
            in->json = true;
            break;
        case OPTION_WAIT:
            in->wait = optarg;
            break;
        case OPTION_NO_WAIT:
            in->no_wait = true;
            break;
        case OPTION_METRICS_FILE:
            in->metrics_file = optarg;
            break;
        case OPTION_DIFF:
        case OPTION_APPLY:
            in->desired_file = optarg;
            break;
        case OPTION_PRUNE:
            in->prune = true;
            break;
        case OPTION_DRY_RUN:
            in->dry_run = true;
            break;
        default:
            break;
    }
    if (row->kind == OptionKind::value && row->letter != 0) {
        in->values_given += row->letter;
    }
    if (row->kind == OptionKind::command) {
        name_command(in, row->command);
    }
}

}  // namespace

Invocation read_strictly(int argc, char** argv) {
    Invocation in;
    in.reading = Reading::strict;
    const GetoptArray& options = getopt_options(true);
    int value;
    while ((value = getopt_long(argc, argv, SHORT_OPTIONS, options.data(), nullptr)) != -1) {
        take(&in, value);
    }
    in.words.assign(argv + optind, argv + argc);
    const char* environment = getenv(API_KEY_VARIABLE);
    in.key_elsewhere =
        in.api_key_file != nullptr || (environment != nullptr && environment[0] != '\0');
    return in;
}

namespace {

// What a first pass over the whole line finds: whether it holds a
// scripting option, and how many --verbose it holds (both readings stop
// early or skip, so neither can count them).
struct LineScan {
    bool strict = false;
    int verbosity = 0;
};

// getopt permutes what it reads: the scan reads a copy, so the reading
// proper later sees argv as it came. The copy lives on the stack for usual
// command lines.
LineScan scan_line(int argc, char** argv) {
    const GetoptArray& options = getopt_options(true);
    char* on_stack[STACK_ARGUMENTS];
    std::vector<char*> on_heap;
    char** copy = on_stack;
    if (argc > STACK_ARGUMENTS) {
        on_heap.resize(static_cast<size_t>(argc));  // running out here is main's to report
        copy = on_heap.data();
    }
    memcpy(copy, argv, sizeof(char*) * static_cast<size_t>(argc));
    const int reporting = opterr;
    opterr = 0;
    optind = 0;
    LineScan found;
    int value;
    while ((value = getopt_long(argc, copy, SHORT_OPTIONS, options.data(), nullptr)) != -1) {
        const OptionRow* row = option_by_value(value);
        found.strict = found.strict || (row != nullptr && row->scripting);
        found.verbosity += value == OPTION_VERBOSE ? 1 : 0;
    }
    opterr = reporting;
    optind = 0;
    return found;
}

}  // namespace

bool wants_strict_reading(int argc, char** argv) {
    return scan_line(argc, argv).strict;
}

Invocation read_command_line(int argc, char** argv) {
    const LineScan scan = argc >= 2 ? scan_line(argc, argv) : LineScan{};
    Invocation in = scan.strict ? read_strictly(argc, argv) : read_humanly(argc, argv);
    in.verbosity = scan.verbosity;
    return in;
}
