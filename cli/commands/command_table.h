// The command table: one row per command, holding all that makes the
// command what it is. The runner (run.cpp) dispatches once, from the row; a
// new command is one row and its handlers.
#pragma once

#include <cstdint>

#include "cli/command_line/invocation.h"
#include "ipc/ipc_config.h"

struct CommandRow {
    CommandId id;
    const char* shown_as = nullptr;  // how usage messages name it: "-a", "--events"

    // Answered without the Transfer Agent (help, version): writes its
    // outcome and ends the run. Null for the others.
    void (*answer_here)(const Invocation& in) = nullptr;

    // Before anything is queued, once the session has started: checks the
    // invocation's values (ending the run on a bad one) and returns the
    // request record the builder reads, which lives for the whole run
    // (null: none).
    void* (*prepare)(const Invocation& in) = nullptr;
    const char* agent_command = nullptr;  // the first request; null: none (--events)
    ExecutionCallback build = nullptr;    // its "data"
    ResponseCallback on_answer = nullptr;
    ResponseCallback on_event = nullptr;  // "tenants_event" while it runs; null: not followed

    int64_t timeout_seconds = 0;  // 0: none (--events without --wait)
    // The family arms a time-out of its own for each request it sends (the
    // desired-state commands: one per step); the runner arms none.
    bool times_itself = false;
    void (*on_timeout)() = nullptr;
    // Every connection attempt failed. Null: with --json the run ends at
    // once as "unreachable", without it the time-out says so later.
    void (*on_gave_up)() = nullptr;
    void (*on_hung_up)() = nullptr;  // the conversation closed while followed; null: not watched
    // The conversation ended and no handler gave a verdict. Null: the
    // answer was unusable (silent, status 0, in the human interface).
    void (*on_over)() = nullptr;
    void (*before_run)() = nullptr;  // extra watches (signals, the latency clock); null: none
    // The agent serves another client. Null: the busy message, as a failure.
    void (*on_busy)() = nullptr;
    int32_t attempts = 0;

    // The strict reading's rules: option letters the command needs and
    // those it accepts (of -p -f -k -u -t; accepting -k also accepts
    // --api-key-file and --agent-uid), and whether --wait (which
    // replaces the time-out) and --no-wait (which ends at the agent's
    // acknowledgement) apply.
    const char* needs = nullptr;
    const char* accepts = nullptr;
    bool takes_wait = false;
    bool takes_no_wait = false;
    bool takes_prune = false;    // --prune
    bool takes_dry_run = false;  // --dry-run

    // A failure's human status when not the failure table's (3 for the
    // watch and the health check); 0: the table's.
    int human_failure_status = 0;
};

const CommandRow& command_row(CommandId id);
