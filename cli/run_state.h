// The state of one run of the tool, shared by the command operations, the
// response and event handlers and the time-out callbacks. One record for the
// process, reached through run_state(); one thread, no lock.
#pragma once

#include <cstddef>
#include <cstdint>

#include "core/callback_event.h"
#include "network/network.h"

// Text buffers for the fields read from the Transfer Agent's answers and
// events, NUL included.
constexpr size_t NAME_SIZE = 40;
constexpr size_t STATUS_SIZE = 255;
constexpr size_t IP_ADDRESS_SIZE = 40;
constexpr size_t PROXY_IP_ADDRESS_SIZE = 17;
constexpr size_t UUID_SIZE = 37;
constexpr size_t ONION_ADDRESS_SIZE = 63;
constexpr size_t REASON_SIZE = 100;
constexpr size_t SYNCHRONIZED_SIZE = 9;

struct RunState {
    EventDispatcher* dispatcher;  // created at start-up, freed when the loop is done
    // The service the running command is about (not owned), null for the
    // commands about no service. Set by the command operation before the
    // conversation starts.
    const char* service_name;
    // Follow-up of enabling: "in progress" events seen, first "connected"
    // seen (cleared by the enabling time-out before it reports success).
    int enabling_progress_count;
    int sync_started;

    // Chosen on the command line: the strict reading (a scripting option is
    // there), --json, --wait, --no-wait.
    bool scripting;
    bool json;
    int64_t wait_seconds;  // 0: each command's own time-out
    bool no_wait;
    // A connection that failed every attempt ends the run at once (--json,
    // --events, --check) instead of at the time-out.
    bool stop_when_unreachable;
    // Status of a failure in human mode: 1, or 3 for --events and --check.
    int human_failure_status;
    // Seconds the running command's time-out was armed with.
    int64_t timeout_seconds;
    // A connection to the Transfer Agent was made at least once.
    bool connected;
    networkConnection* connection;  // the last one connected; owned by the run
    // The final result was printed (JSON mode: one final object per run).
    bool finished;
};

RunState& run_state();
