// The command line: getopt_long over the short and long options, the choice
// of the one command an invocation means, and the usage text. Usage problems
// never fail: they print the usage text and the status is 0.
#pragma once

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
