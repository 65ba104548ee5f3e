// The one table of the tool's options: each option once, with its long
// name, its letter, whether it takes an argument, and the command it is
// (or the value it gives). The getopt arrays of both readings come from it;
// a test checks the short-option string, the usage text and the
// completions against it.
#pragma once

#include <getopt.h>

#include <array>
#include <cstddef>
#include <span>

#include "cli/command_line/invocation.h"

// The second "e:" is harmless to getopt and kept as the tool always had it.
constexpr const char* SHORT_OPTIONS = "hla:e:p:f:k:r:s:d:e:u:c:t:g";

enum class OptionKind {
    command,  // names the command (-a, -e, -c also give a value)
    value,    // gives the command a value
    flag,     // changes how the run goes (--json, --wait, --no-wait, --prune, --dry-run)
};

struct OptionRow {
    const char* long_name;
    char letter;  // 0: long only
    bool takes_argument;
    OptionKind kind;
    bool scripting;     // selects the strict reading
    CommandId command;  // the command it is, or belongs to
    int value;          // what getopt returns: the letter, or a value above 255
    // A second long name matched only exactly: "--a" and "--c" abbreviated
    // --add and --configProxy before --api-key-file, --agent-uid and --check
    // made them ambiguous, and still mean them.
    const char* exact_alias;
};

// getopt values of the long-only options.
enum LongOnlyValue : int {
    OPTION_ENABLE_PROXY = 1000,
    OPTION_DISABLE_PROXY,
    OPTION_ENABLE_AUDIT,
    OPTION_DISABLE_AUDIT,
    OPTION_SAVE_TRACEABILITY,
    OPTION_API_KEY_FILE,
    OPTION_AGENT_UID,
    OPTION_JSON,
    OPTION_VERSION,
    OPTION_EVENTS,
    OPTION_WAIT,
    OPTION_NO_WAIT,
    OPTION_CHECK,
    OPTION_VERBOSE,
    OPTION_METRICS,
    OPTION_METRICS_FILE,
    OPTION_DIFF,
    OPTION_APPLY,
    OPTION_EXPORT,
    OPTION_PRUNE,
    OPTION_DRY_RUN,
};

// The table, in getopt order: the human interface's options first (as it
// has always listed them), then the scripting ones.
std::span<const OptionRow> option_table();

// The row whose getopt value is `value`, or null.
const OptionRow* option_by_value(int value);

// A getopt_long array: every option of the table (`scripting` true) or the
// human interface's only, then the all-zero end; a constant that lives as
// long as the program.
constexpr size_t GETOPT_CAPACITY = 48;
using GetoptArray = std::array<struct option, GETOPT_CAPACITY>;
const GetoptArray& getopt_options(bool scripting);

// The usage text, without its final newline.
const char* usage_text();
