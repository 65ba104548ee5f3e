// The strict reading's rules.

#include "cli/commands/strict_rules.h"

#include <cstdlib>
#include <cstring>
#include <string>

#include "cli/command_line/option_table.h"
#include "cli/commands/run.h"
#include "cli/preflight/argument_texts.h"
#include "cli/preflight/strict_address.h"

namespace {

constexpr int64_t WAIT_LIMIT = 86400;

[[noreturn]] void usage_error(const std::string& reason) {
    Outcome outcome = Outcome::fail(Failure::usage, Message().say(reason).say("\n"));
    outcome.human = HumanException{Message().say(usage_text()).say("\n"), outcome.text, 2};
    finish(outcome);
}

[[noreturn]] void bad_argument(Message text) {
    finish(Outcome::fail(Failure::bad_argument, std::move(text)));
}

// The words --saveTraceabilityConfig's target takes, or -1 for an unknown
// target.
int traceability_words(const char* target, const char** names) {
    if (strcmp(target, "console") == 0) {
        return 0;
    }
    if (strcmp(target, "file") == 0) {
        *names = "logFolderPath filenameFormat maxFileSize";
        return 3;
    }
    if (strcmp(target, "syslog") == 0) {
        *names = "syslogServerAddress syslogServerPort syslogServerProtocol";
        return 3;
    }
    return -1;
}

void check_words(const Invocation& in) {
    if (in.command != CommandId::save_traceability) {
        if (!in.words.empty()) {
            usage_error("Unexpected argument '" + std::string(in.words[0]) + "'.");
        }
        return;
    }
    const char* names = nullptr;
    const int expected = traceability_words(in.traceability_target, &names);
    if (expected < 0) {
        usage_error("Unknown traceability target '" + std::string(in.traceability_target) + "'.");
    }
    if (expected == 0 && !in.words.empty()) {
        usage_error("Unexpected argument '" + std::string(in.words[0]) + "'.");
    }
    if (static_cast<int>(in.words.size()) != expected) {
        usage_error("--saveTraceabilityConfig " + std::string(in.traceability_target) +
                    " takes three words (" + names + "), not " + std::to_string(in.words.size()) +
                    ".");
    }
}

void check_options(const CommandRow& row, const Invocation& in) {
    std::string given = in.values_given;
    // A key from a file or the environment stands for -k; only an add takes one.
    if (in.command == CommandId::add && in.api_key == nullptr && in.key_elsewhere) {
        given += 'k';
    }
    for (char letter : given) {
        if (strchr(row.accepts, letter) == nullptr) {
            usage_error(std::string("Option -") + letter + " is not used by " + row.shown_as + ".");
        }
    }
    for (const char* letter = row.needs; *letter != '\0'; letter++) {
        if (given.find(*letter) == std::string::npos) {
            usage_error(std::string(row.shown_as) + " needs -" + *letter + ".");
        }
    }
}

void check_waiting(const CommandRow& row, const Invocation& in) {
    if (in.wait != nullptr && in.no_wait) {
        usage_error("--wait and --no-wait cannot be combined.");
    }
    if (in.wait != nullptr && !row.takes_wait) {
        usage_error("--wait applies to -a, -s, -d and --events only.");
    }
    if (in.no_wait && !row.takes_no_wait) {
        usage_error("--no-wait applies to -s and -d only.");
    }
    if (in.prune && !row.takes_prune) {
        usage_error("--prune applies to --diff and --apply only.");
    }
    if (in.dry_run && !row.takes_dry_run) {
        usage_error("--dry-run applies to --apply only.");
    }
}

// Each clear service of -u must be one the lenient reading would send as
// written.
bool strict_clear_services(std::string_view list) {
    for (;;) {
        const size_t comma = list.find(',');
        if (!is_strict_clear_service(list.substr(0, comma))) {
            return false;
        }
        if (comma == std::string_view::npos) {
            return true;
        }
        list.remove_prefix(comma + 1);
    }
}

// Values are refused rather than sent other than written: an address that
// wraps or has something after it, a port with a sign or a tail, a name cut
// or rewritten for its bytes. The human reading keeps its lenient rules.
void check_values(const Invocation& in) {
    const bool names_service = in.command == CommandId::add || in.command == CommandId::edit;
    if (in.service_name != nullptr &&
        !(names_service ? is_strict_service_name(in.service_name) : is_utf8(in.service_name))) {
        bad_argument(Message::format(names_service
                                         ? "The service name '%s' is not 1 to 255 bytes of UTF-8.\n"
                                         : "The service name '%s' is not valid UTF-8.\n",
                                     {in.service_name}));
    }
    if (in.address != nullptr &&
        parse_strict_endpoint(in.address, nullptr) != EndpointError::none) {
        bad_argument(in.command == CommandId::save_proxy ? BAD_C_MESSAGE : BAD_P_MESSAGE);
    }
    if (in.forwarding_port != nullptr && !parse_strict_port(in.forwarding_port, nullptr)) {
        bad_argument(BAD_F_MESSAGE);
    }
    if (in.clear_services != nullptr && !strict_clear_services(in.clear_services)) {
        bad_argument(BAD_U_MESSAGE);
    }
    if (in.command == CommandId::save_traceability &&
        strcmp(in.traceability_target, "syslog") == 0 && !parse_strict_port(in.words[1], nullptr)) {
        bad_argument(BAD_SYSLOG_PORT_MESSAGE);
    }
}

}  // namespace

void refuse_unless_well_formed(const CommandRow& row, const Invocation& in) {
    if (in.unreadable) {
        usage_error("The command line holds an unknown or incomplete option.");
    }
    if (in.commands_named != 1) {
        usage_error("Expected exactly one command.");
    }
    check_options(row, in);
    check_words(in);
    check_waiting(row, in);
    if (in.json && in.command == CommandId::metrics) {
        usage_error("--metrics writes Prometheus's text format; with --json, use --metrics-file.");
    }
    if ((in.api_key_file != nullptr || in.agent_uid != nullptr) &&
        strchr(row.accepts, 'k') == nullptr) {
        usage_error("--api-key-file and --agent-uid apply to -a only.");
    }
    if (in.wait != nullptr && wait_seconds(in) == 0) {
        bad_argument("Bad value for --wait. Expected a whole number of seconds from 1 to 86400.\n");
    }
    check_values(in);
}

int64_t wait_seconds(const Invocation& in) {
    char* end = nullptr;
    long long seconds = strtoll(in.wait, &end, 10);
    if (end == in.wait || *end != '\0' || seconds < 1 || seconds > WAIT_LIMIT) {
        return 0;
    }
    return seconds;
}
