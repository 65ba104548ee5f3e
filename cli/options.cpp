#include "cli/options.h"

#include <getopt.h>

#include <array>
#include <cstdio>
#include <cstring>

#include "cli/agent_listener.h"
#include "cli/api_key.h"
#include "cli/commands.h"
#include "cli/scripting.h"

namespace {

constexpr std::array<struct option, 24> LONG_OPTIONS_TEMPLATE = {{
    {"help", no_argument, nullptr, 'h'},
    {"list", no_argument, nullptr, 'l'},
    {"add", required_argument, nullptr, 'a'},
    {"ptr", required_argument, nullptr, 'p'},
    {"forwarding", required_argument, nullptr, 'f'},
    {"key", required_argument, nullptr, 'k'},
    {"remove", required_argument, nullptr, 'r'},
    {"enable", required_argument, nullptr, 's'},
    {"disable", required_argument, nullptr, 'd'},
    {"edit", required_argument, nullptr, 'e'},
    {"url", required_argument, nullptr, 'u'},
    {"configProxy", required_argument, nullptr, 'c'},
    {"proxyType", required_argument, nullptr, 't'},
    {"getProxy", no_argument, nullptr, 'g'},
    {"enableProxy", no_argument, nullptr, 0},
    {"disableProxy", no_argument, nullptr, 0},
    {"enableAuthenticationAudit", no_argument, nullptr, 0},
    {"disableAuthenticationAudit", no_argument, nullptr, 0},
    {"saveTraceabilityConfig", required_argument, nullptr, 0},
    {"api-key-file", required_argument, nullptr, OPTION_API_KEY_FILE},
    {"agent-uid", required_argument, nullptr, OPTION_AGENT_UID},
    // "--a" and "--c" abbreviated --add and --configProxy before --api-key-file,
    // --agent-uid and --check made them ambiguous; exact names keep them so.
    {"a", required_argument, nullptr, 'a'},
    {"c", required_argument, nullptr, 'c'},
    {nullptr, 0, nullptr, 0},
}};

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

// What the scan collected; the later of -a/-e and of -p/-c wins.
struct CollectedOptions {
    int add_requested;
    int edit_requested;
    int address_given;
    int proxy_address_given;
    int proxy_type_given;
    int key_given;
    const char* service_name;
    const char* address;
    const char* forwarding_port;
    const char* api_key;
    const char* clear_services;
    const char* proxy_type;
    const char* api_key_file;
};

enum class Scan { go_on, done };

// One getopt_long value: collects it, or runs its command at once.
Scan take_option(int value, CollectedOptions* options, int argc, char** argv) {
    switch (value) {
        case 'a':
            options->add_requested = 1;
            options->service_name = optarg;
            return Scan::go_on;
        case 'e':
            options->edit_requested = 1;
            options->service_name = optarg;
            return Scan::go_on;
        case 'p':
            options->address_given = 1;
            options->address = optarg;
            return Scan::go_on;
        case 'c':
            options->proxy_address_given = 1;
            options->address = optarg;
            return Scan::go_on;
        case 'f':
            options->forwarding_port = optarg;
            return Scan::go_on;
        case 'k':
            options->key_given = 1;
            options->api_key = optarg;
            return Scan::go_on;
        case 'u':
            options->clear_services = optarg;
            return Scan::go_on;
        case 't':
            options->proxy_type_given = 1;
            options->proxy_type = optarg;
            return Scan::go_on;
        case OPTION_API_KEY_FILE:
            options->api_key_file = optarg;
            return Scan::go_on;
        case OPTION_AGENT_UID:
            AgentListener.allow_uid(optarg);
            return Scan::go_on;
        case 'h':
            print_usage();
            return Scan::done;
        case 'l':
            list_services();
            return Scan::done;
        case 'g':
            get_proxy_config();
            return Scan::done;
        case 'r':
        case 's':
        case 'd':
            if (optarg == nullptr) {
                print_usage();
            } else if (value == 'r') {
                remove_service(optarg);
            } else if (value == 's') {
                enable_service(optarg);
            } else {
                disable_service(optarg);
            }
            return Scan::done;
        default:
            // Long-only options (0), getopt's '?' and ':', and unused letters.
            if (handle_long_option(argc, argv) < 0) {
                print_usage();
            }
            return Scan::done;
    }
}

// The post-scan choice: add, then edit, then proxy, else the usage.
// Without -k, an add takes its key from --api-key-file or SYLVANE_API_KEY.
void run_collected(const CollectedOptions& o) {
    bool add_complete =
        o.add_requested && o.address_given && o.service_name != nullptr && o.address != nullptr;
    const char* api_key = o.key_given ? o.api_key : nullptr;
    if (add_complete && api_key == nullptr) {
        api_key = ApiKey.resolve(o.api_key_file);
    }
    if (add_complete && api_key != nullptr) {
        add_service(o.service_name, o.address, o.forwarding_port, api_key, o.clear_services);
    } else if (o.edit_requested && o.address_given && o.service_name != nullptr &&
               o.address != nullptr) {
        edit_service(o.service_name, o.address, o.forwarding_port);
    } else if (o.proxy_address_given && o.proxy_type_given && o.address != nullptr &&
               o.proxy_type != nullptr) {
        save_proxy_config(o.address, o.proxy_type);
    } else {
        print_usage();
    }
}

}  // namespace

void print_usage() {
    puts(USAGE_TEXT);
}

const char* usage_text() {
    return USAGE_TEXT;
}

const struct option* human_long_options() {
    return LONG_OPTIONS_TEMPLATE.data();
}

int run_command_line(int argc, char** argv) {
    if (argc < 2) {
        print_usage();
        return 0;
    }
    if (wants_scripting(argc, argv)) {
        return run_scripting(argc, argv);
    }
    std::array<struct option, LONG_OPTIONS_TEMPLATE.size()> long_options = LONG_OPTIONS_TEMPLATE;
    CollectedOptions options{};
    int value;
    while ((value = getopt_long(argc, argv, SHORT_OPTIONS, long_options.data(), nullptr)) != -1) {
        if (take_option(value, &options, argc, argv) == Scan::done) {
            return 0;
        }
    }
    run_collected(options);
    return 0;
}

// Whatever position the long option had, only the first argument counts.
int handle_long_option(int argc, char** argv) {
    if (argc < 2) {
        return -1;
    }
    const char* first = argv[1];
    if (strcmp(first, "--enableProxy") == 0) {
        set_proxy_state(1);
    } else if (strcmp(first, "--disableProxy") == 0) {
        set_proxy_state(0);
    } else if (strcmp(first, "--enableAuthenticationAudit") == 0) {
        set_authentication_audit_state(1);
    } else if (strcmp(first, "--disableAuthenticationAudit") == 0) {
        set_authentication_audit_state(0);
    } else if (strcmp(first, "--saveTraceabilityConfig") == 0) {
        return parse_traceability_arguments(argc, argv);
    } else {
        return -1;
    }
    return 0;
}

int parse_traceability_arguments(int argc, char** argv) {
    if (argc == 3 && strcmp(argv[2], "console") == 0) {
        save_traceability_config("console", nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
    } else if (argc == 6 && strcmp(argv[2], "file") == 0) {
        save_traceability_config("file", argv[3], argv[4], argv[5], nullptr, nullptr, nullptr);
    } else if (argc == 6 && strcmp(argv[2], "syslog") == 0) {
        save_traceability_config("syslog", nullptr, nullptr, nullptr, argv[3], argv[4], argv[5]);
    } else {
        return -1;
    }
    return 0;
}
