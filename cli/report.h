// How a run reports its outcome: the human texts on standard output and
// standard error, or, with --json, one JSON object per line on standard
// output ({"version": 1, ...}) and the scripting exit statuses.
#pragma once

#include "cli/json_writer.h"
#include "core/module.h"

// The stable error codes of JSON mode.
enum class Failure {
    usage,         // the command line means no single command (status 2)
    bad_argument,  // a value the tool refuses before connecting (1)
    refused,       // the Transfer Agent said no (1)
    failed,        // the service went to "error" or "disconnected" while followed (1)
    bad_answer,    // an answer or event the tool cannot read (1)
    internal,      // the tool could not start (1)
    timeout,       // connected, but no answer in time (3)
    busy,          // the Transfer Agent serves another client (3)
    unreachable,   // no connection could be made (3)
    // Before an add, another user's socket holds the agent's port (1).
    untrusted_listener,
    // --check: what listens on the agent's port does not speak its protocol (3).
    not_an_agent,
};

const char* failure_code(Failure failure);
int json_exit_status(Failure failure);

bool json_mode();

// {"version": 1, <fields>} on one line of standard output, flushed. A
// writer that ran out of memory ends the run as an "internal" failure.
void emit(const JsonWriter& fields);

// Ends the run. Human mode: `human_text` on standard error and the run's
// human failure status. JSON mode: {"version": 1, "ok": false, "error",
// "message" (the human text without its newlines), <extra>}.
// Nothing here throws; human mode allocates nothing.
[[noreturn]] void fail(Failure failure, const char* human_text,
                       const JsonWriter& extra = JsonWriter());
[[noreturn]] void failf(Failure failure, const JsonWriter& extra, const char* format, ...)
    SYLV_PRINTF(3, 4);

// The final success. Human mode: `human_text` (unless null) on standard
// output. JSON mode: {"version": 1, "ok": true, <extra>}. Does not exit.
void report_success(const char* human_text, const JsonWriter& extra = JsonWriter());

// "service" (the running command's), then "reason" when given.
JsonWriter about_service(const char* reason = nullptr);
