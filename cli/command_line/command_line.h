// Reading the command line into an Invocation. Any scripting option
// (--json, --version, --events, --check, --wait, --no-wait, --metrics,
// --metrics-file) selects the strict reading; otherwise the human reading
// reads it as the tool always has. --verbose selects neither: both readings
// take it, and the count comes from a first pass over the whole line.
// Neither reading runs anything, and neither judges more than it must: the
// strict reading's rules are the command rows' (cli/commands/).
#pragma once

#include "cli/command_line/invocation.h"

Invocation read_command_line(int argc, char** argv);

// The two readings (human_reading.cpp, strict_reading.cpp).
Invocation read_humanly(int argc, char** argv);
Invocation read_strictly(int argc, char** argv);

// True when the command line holds a scripting option. Reads a copy of argv
// with getopt's diagnostics off, and leaves getopt reset.
bool wants_strict_reading(int argc, char** argv);
