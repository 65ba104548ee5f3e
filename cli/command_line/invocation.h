// Invocation: everything the command line said, read once by one of the two
// readings and never changed after. Nothing runs while it is read.
#pragma once

#include <string>
#include <vector>

// The commands of the tool; each has one row in the command table
// (cli/commands/command_table.cpp).
enum class CommandId {
    help,
    version,
    list,
    get_proxy,
    remove,
    enable,
    disable,
    add,
    edit,
    save_proxy,
    enable_proxy,
    disable_proxy,
    enable_audit,
    disable_audit,
    save_traceability,
    events,
    check,
    metrics,       // --metrics: the exposition on standard output
    metrics_file,  // --metrics-file PATH: the same, written atomically
    diff,          // --diff FILE, and --apply FILE --dry-run
    apply,         // --apply FILE
    export_state,  // --export
};

enum class Reading {
    human,   // the kept reading: the first immediate option acts, clashes merge
    strict,  // a scripting option is present: collect everything, then judge
};

struct Invocation {
    Reading reading = Reading::human;
    bool json = false;  // --json
    CommandId command = CommandId::help;

    // The values, each as typed (null when absent). -a and -e share the
    // service name, -p and -c the address: the later one wins.
    const char* service_name = nullptr;  // -a, -e, -r, -s, -d
    const char* address = nullptr;       // -p, -c
    const char* forwarding_port = nullptr;
    const char* api_key = nullptr;
    const char* clear_services = nullptr;
    const char* proxy_type = nullptr;
    const char* api_key_file = nullptr;  // --api-key-file
    const char* agent_uid = nullptr;     // --agent-uid
    const char* traceability_target = nullptr;
    // --saveTraceabilityConfig's words after the target; in the strict
    // reading, every operand.
    std::vector<const char*> words;
    const char* wait = nullptr;  // --wait's text
    bool no_wait = false;
    const char* metrics_file = nullptr;  // --metrics-file's path
    int verbosity = 0;                   // how many --verbose, wherever they stand
    const char* desired_file = nullptr;  // --diff's or --apply's FILE ("-": standard input)
    bool prune = false;                  // --prune
    bool dry_run = false;                // --dry-run

    // What only the strict reading judges.
    int commands_named = 0;      // how many commands the line named
    bool unreadable = false;     // getopt met an unknown or incomplete option
    std::string values_given;    // letters of -p -f -k -u -t, in the order met
    bool key_elsewhere = false;  // --api-key-file or SYLVANE_API_KEY stands for -k
};
