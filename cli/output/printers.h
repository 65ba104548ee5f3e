// Inside the output layer: the two printers, the failure table and the
// checked writes they share. Commands include output.h, not this.
#pragma once

#include <cstdio>
#include <string_view>

#include "cli/output/outcome.h"

// The failure table (output.cpp): each code's JSON name and statuses.
// A success (none, changes_pending) has no code.
const char* failure_code(Failure failure);
int json_status(Failure failure);

struct Printer {
    void (*progress)(const Progress& progress);
    void (*notice)(const char* human_text);
    // Writes the outcome; returns the run's exit status.
    int (*final)(const Outcome& outcome, int human_failure_status);
    // Writes "Unable to allocate memory." without allocating; returns the status.
    int (*out_of_memory)();
};

extern const Printer HumanPrinter;
extern const Printer JsonPrinter;

// Writes all of `text` to `stream`, or ends the run (status 1) with a
// message on standard error when it can still be written.
void write_checked(FILE* stream, std::string_view text);
// Flushes `stream`, or ends the run the same way.
void flush_checked(FILE* stream);
