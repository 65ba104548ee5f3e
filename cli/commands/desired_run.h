// What the desired-state commands share while they run: the file read
// before connecting, the plan made as the agent's answers are read (or,
// for an export, the agent's state), and the one
// time-out they re-arm for each request. desired.cpp reads and plans;
// apply.cpp carries the plan out.
#pragma once

#include <cstdint>
#include <optional>

#include "cli/command_line/invocation.h"
#include "cli/desired_state/plan.h"
#include "cli/desired_state/render.h"
#include "sylvshared/json.h"

struct DesiredRun {
    const Invocation* invocation = nullptr;
    DesiredState desired;
    std::optional<Planner> planner;  // from the listing's answer on, but for an export
    AgentSnapshot agent;             // the proxy as read; the services only for an export
    Plan plan;
};

// The run's one record (desired.cpp).
DesiredRun& desired_run();

// Arms the time-out anew: `seconds` from now, desired_timed_out() runs
// unless it is armed again first (desired.cpp).
void arm_desired_timeout(int64_t seconds);

// apply.cpp: carries out desired_run().plan, from the answer handler that
// completed it. Sends its first step, or ends the run when there is none.
void start_apply();
// Whether start_apply has run: events and time-outs are the apply's then.
bool applying();
// A "tenants_event" while applying.
void apply_event(const JsonValue* data);
// The current step's time-out fired, or the agent ended the conversation:
// ends the run, or returns when the step counts as done after all (an
// enable that is syncing) and the next one was sent.
void apply_stopped(bool timed_out);