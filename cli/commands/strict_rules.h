// The strict reading's judgement of a command line, from the command's row:
// one command, only the options it uses, none it lacks, no stray word, and
// values that are exactly what they claim to be.
#pragma once

#include <cstdint>

#include "cli/command_line/invocation.h"
#include "cli/commands/command_table.h"

// Returns when the line is one well-formed command; otherwise ends the run
// as "usage" (status 2: the reason on standard error, the usage text on
// standard output) or, for a value refused as such, "bad_argument" (1).
void refuse_unless_well_formed(const CommandRow& row, const Invocation& in);

// --wait's whole number of seconds, 1 to 86400 (checked above).
int64_t wait_seconds(const Invocation& in);
