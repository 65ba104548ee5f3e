// The command line: getopt_long over the short and long options, the choice
// of the one command an invocation means, and the usage text. Usage problems
// never fail: they print the usage text and the status is 0.
#pragma once

struct option;

// The second "e:" is harmless to getopt and kept as the tool always had it.
constexpr const char* SHORT_OPTIONS = "hla:e:p:f:k:r:s:d:e:u:c:t:g";

// The long options of the human interface, ending with an all-zero entry.
// Long-only entries return 0.
const struct option* human_long_options();

// The whole of main: parses, runs at most one command and returns 0 (a
// command that fails ends the process itself).
int run_command_line(int argc, char** argv);

// Long options without a short letter; only argv[1] is looked at. 0 when a
// command ran, -1 when the arguments were not understood.
int handle_long_option(int argc, char** argv);

// --saveTraceabilityConfig console | file PATH FORMAT SIZE |
// syslog ADDRESS PORT PROTOCOL, chosen by argc. 0 when the command ran, -1
// otherwise.
int parse_traceability_arguments(int argc, char** argv);

void print_usage();
const char* usage_text();
