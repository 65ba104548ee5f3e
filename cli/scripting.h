// The scripting interface's command line: --json, --version, --events,
// --check, --wait and --no-wait. Any of them selects a strict reading of the
// whole command line (collect everything, then run exactly one command);
// without them the human interface reads it as it always has.
#pragma once

// True when the command line holds one of the scripting options. Reads a
// copy of argv with getopt's diagnostics off, and leaves getopt reset.
bool wants_scripting(int argc, char** argv);

// Parses strictly and runs the one command. A usage problem prints the usage
// text (a "usage" object with --json) and ends with status 2. Returns 0 once
// the command has run.
int run_scripting(int argc, char** argv);
