// The option table and what is made from it.

#include "cli/command_line/option_table.h"

#include <cstring>

namespace {

using K = OptionKind;
using C = CommandId;

constexpr const char* USAGE_TEXT =
    "Usage: sylvane-service [-hlg][-a name -p ipv4:port -f userAccessPort -k ApiKey -u "
    "clearServices][-d name][-c ipv4:port -t proxyType]\n"
    "\n"
    "with:\n"
    "-a name -p addr:port -k ApiKey\n"
    "\t -a: Declare a new service with name 'name'\n"
    "\t -p: Set 'address' and 'port' of target service.\n"
    "\t -f: Set user access port of target service.\n"
    "\t -k: API key copied from Sylvane manager.\n"
    "\t -u: List of clear services.\n"
    "-r name\t\t\t\tRemove service 'name'\n"
    "-l\t\t\t\tList the previously declared services with associated attributes (like onion "
    "addresses)\n"
    "-h\t\t\t\tPrint this help message\n"
    "\n"
    "-s name\t\t\t\tEnable service 'name'.\n"
    "-d name\t\t\t\tDisable service 'name'.\n"
    "-e name -p addr:port\t\tEdit service 'name' with new 'address' and 'port'\n"
    "\n"
    "-u clearServices\t\tList of clear services\n"
    "\n"
    "-c addr:port -t ProxyType\tConfigure proxy (with ProxyType set to HTTP, HTTPS or Socks5)\n"
    "-g\t\t\t\tGet current proxy configuration\n"
    "\n"
    "--enableProxy\t\t\t\tEnable proxy\n"
    "\n"
    "--disableProxy\t\t\t\tDisable proxy\n"
    "\n"
    "--enableAuthenticationAudit\t\t\t\tEnable authentication audit\n"
    "\n"
    "--disableAuthenticationAudit\t\t\t\tDisable authentication audit\n"
    "\n"
    "--saveTraceabilityConfig console\t\t\t\tSet traceability logger configuration. Tracking logs "
    "will be displayed in the console\n"
    "\n"
    "--saveTraceabilityConfig file [logFolderPath filenameFormat maxFileSize]\t\t\t\tSet "
    "traceability logger configuration. Tracking logs will be written in files located in the "
    "specified path\n"
    "\n"
    "--saveTraceabilityConfig syslog [syslogServerAddress syslogServerPort "
    "syslogServerProtocol]\t\t\t\tSet traceability logger configuration. Tracking logs will be "
    "forwarded to a syslog server\n"
    "\n"
    "Usage example:\n"
    "   sylvane-service -l\n"
    "   sylvane-service -a WebServer1 -p 127.0.0.1:443 -f 8082 -k APIKey -u "
    "firstDomainName,127.0.0.1,secondDomainName";

}  // namespace

// clang-format off
constexpr OptionRow OPTION_TABLE_ROWS[] = {
    {"help", 'h', false, K::command, false, C::help, 'h', nullptr},
    {"list", 'l', false, K::command, false, C::list, 'l', nullptr},
    {"add", 'a', true, K::command, false, C::add, 'a', "a"},
    {"ptr", 'p', true, K::value, false, C::add, 'p', nullptr},
    {"forwarding", 'f', true, K::value, false, C::add, 'f', nullptr},
    {"key", 'k', true, K::value, false, C::add, 'k', nullptr},
    {"remove", 'r', true, K::command, false, C::remove, 'r', nullptr},
    {"enable", 's', true, K::command, false, C::enable, 's', nullptr},
    {"disable", 'd', true, K::command, false, C::disable, 'd', nullptr},
    {"edit", 'e', true, K::command, false, C::edit, 'e', nullptr},
    {"url", 'u', true, K::value, false, C::add, 'u', nullptr},
    {"configProxy", 'c', true, K::command, false, C::save_proxy, 'c', "c"},
    {"proxyType", 't', true, K::value, false, C::save_proxy, 't', nullptr},
    {"getProxy", 'g', false, K::command, false, C::get_proxy, 'g', nullptr},
    {"enableProxy", 0, false, K::command, false, C::enable_proxy, OPTION_ENABLE_PROXY, nullptr},
    {"disableProxy", 0, false, K::command, false, C::disable_proxy, OPTION_DISABLE_PROXY, nullptr},
    {"enableAuthenticationAudit", 0, false, K::command, false, C::enable_audit, OPTION_ENABLE_AUDIT, nullptr},
    {"disableAuthenticationAudit", 0, false, K::command, false, C::disable_audit, OPTION_DISABLE_AUDIT, nullptr},
    {"saveTraceabilityConfig", 0, true, K::command, false, C::save_traceability, OPTION_SAVE_TRACEABILITY, nullptr},
    {"api-key-file", 0, true, K::value, false, C::add, OPTION_API_KEY_FILE, nullptr},
    {"agent-uid", 0, true, K::value, false, C::add, OPTION_AGENT_UID, nullptr},
    {"json", 0, false, K::flag, true, C::help, OPTION_JSON, nullptr},
    {"version", 0, false, K::command, true, C::version, OPTION_VERSION, nullptr},
    {"events", 0, false, K::command, true, C::events, OPTION_EVENTS, nullptr},
    {"wait", 0, true, K::flag, true, C::help, OPTION_WAIT, nullptr},
    {"no-wait", 0, false, K::flag, true, C::help, OPTION_NO_WAIT, nullptr},
    {"check", 0, false, K::command, true, C::check, OPTION_CHECK, nullptr},
    // Read by both readings wherever it stands; counted, never a command.
    {"verbose", 0, false, K::flag, false, C::help, OPTION_VERBOSE, nullptr},
    {"metrics", 0, false, K::command, true, C::metrics, OPTION_METRICS, nullptr},
    {"metrics-file", 0, true, K::command, true, C::metrics_file, OPTION_METRICS_FILE, nullptr},
    {"diff", 0, true, K::command, true, C::diff, OPTION_DIFF, nullptr},
    {"apply", 0, true, K::command, true, C::apply, OPTION_APPLY, nullptr},
    {"export", 0, false, K::command, true, C::export_state, OPTION_EXPORT, nullptr},
    {"prune", 0, false, K::flag, true, C::help, OPTION_PRUNE, nullptr},
    {"dry-run", 0, false, K::flag, true, C::help, OPTION_DRY_RUN, nullptr},
};
// clang-format on

// "--v", "--ve" and "--ver" meant --version before --verbose made them
// ambiguous, and still mean it.
constexpr const char* VERSION_ABBREVIATIONS[] = {"v", "ve", "ver"};

// Every row, the two exact aliases and the all-zero end must fit.
static_assert(std::size(OPTION_TABLE_ROWS) + 3 <= GETOPT_CAPACITY);

std::span<const OptionRow> option_table() {
    return OPTION_TABLE_ROWS;
}

namespace {

// The row whose getopt value is `value`; every value looked for is in the
// table.
constexpr const OptionRow& row_of(int value) {
    for (const OptionRow& row : OPTION_TABLE_ROWS) {
        if (row.value == value) {
            return row;
        }
    }
    return OPTION_TABLE_ROWS[0];
}

// The human options in table order, their exact aliases, then (for the
// strict reading) the scripting options: getopt lists the candidates of an
// ambiguous abbreviation in this order. Built by the compiler, so a run
// reads its options from a constant.
constexpr GetoptArray make_getopt_options(bool scripting) {
    GetoptArray options{};
    size_t count = 0;
    auto add = [&](const char* name, const OptionRow& row) {
        options[count++] = {name, row.takes_argument ? required_argument : no_argument, nullptr,
                            row.value};
    };
    for (const OptionRow& row : OPTION_TABLE_ROWS) {
        if (!row.scripting) {
            add(row.long_name, row);
        }
    }
    for (const OptionRow& row : OPTION_TABLE_ROWS) {
        if (row.exact_alias != nullptr) {
            add(row.exact_alias, row);
        }
    }
    for (const char* abbreviation : VERSION_ABBREVIATIONS) {
        add(abbreviation, row_of(OPTION_VERSION));
    }
    for (const OptionRow& row : OPTION_TABLE_ROWS) {
        if (scripting && row.scripting) {
            add(row.long_name, row);
        }
    }
    return options;  // the rest stays all-zero
}

constexpr GetoptArray HUMAN_OPTIONS = make_getopt_options(false);
constexpr GetoptArray ALL_OPTIONS = make_getopt_options(true);

}  // namespace

const OptionRow* option_by_value(int value) {
    for (const OptionRow& row : OPTION_TABLE_ROWS) {
        if (row.value == value) {
            return &row;
        }
    }
    return nullptr;
}

const GetoptArray& getopt_options(bool scripting) {
    return scripting ? ALL_OPTIONS : HUMAN_OPTIONS;
}

const char* usage_text() {
    return USAGE_TEXT;
}
