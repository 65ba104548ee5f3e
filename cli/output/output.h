// The output of a run: the printer is chosen once, before anything else
// runs, and every progress step, notice and final outcome goes through it.
// The run ends in one place (end_run), with the status the printer gives
// the outcome. A write to standard output or error that fails (a closed
// pipe, a full disk) ends the run at once with status 1.
#pragma once

#include "cli/output/outcome.h"

enum class OutputMode { human, json };

// Chosen once, in main, before anything is written.
void choose_output(OutputMode mode);

// A failure's status in the human interface is the failure table's, or
// `status` when not 0 (--events and --check fail with 3).
void set_human_failure_status(int status);

// The failure table's status of `failure` in the human interface.
int human_status(Failure failure);

// A progress step, flushed at once.
void report(const Progress& progress);

// A line for the human interface only, on standard error (JSON mode keeps
// standard error empty).
void notice(const char* human_text);

// Writes the final outcome and ends the run with its status.
[[noreturn]] void finish(const Outcome& outcome);

// Out of memory: "Unable to allocate memory." (status 1), written without
// allocating.
[[noreturn]] void finish_out_of_memory();

// Whether a write to standard output or error has failed; checked by the
// long-running watch, whose output may be a pipe whose reader has gone.
// Ends the run when standard output's reader has gone.
void end_if_output_gone();

// The one exit of the tool.
[[noreturn]] void end_run(int status);

// Runs `handler` (a loop callback of a command), turning a std::bad_alloc
// into finish_out_of_memory(): nothing may throw into libevent.
template <typename Handler>
void without_running_out(Handler handler) noexcept {
    try {
        handler();
    } catch (...) {
        finish_out_of_memory();
    }
}
