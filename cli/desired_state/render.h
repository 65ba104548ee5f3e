// Texts of the desired-state commands, as pure functions of their values:
// the plan for people and as JSON, and an agent's state written as a
// desired-state file (YAML, or JSON). Each returns the whole text; an
// empty text means memory ran out. Nothing here prints or throws.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "cli/desired_state/plan.h"

// One element of the agent's listing, kept for an export (untrusted text).
struct AgentService {
    std::string name{};
    std::string status{};  // "connected", "in progress", "disconnected", "error", ...
    std::string ip_address{};
    int64_t port = 0;
    int64_t virtual_port = 0;
};

// What an export writes: the agent's services and its proxy.
struct AgentSnapshot {
    std::vector<AgentService> services{};  // in listing order
    std::optional<AgentProxy> proxy{};     // absent when it was not asked for
};

// One line per change, like "~ web: update target 127.0.0.1:80 -> 127.0.0.1:81",
// then one summary line. Text from the agent is written with control and
// bidirectional characters escaped.
std::string render_plan_text(const Plan& plan);

// One change object: {"object": "service", "service": ..., "action": ...,
// "before": ..., "after": ...}.
std::string render_change_json(const Change& change);

// {"create": 1, "update": 0, ..., "not_managed": 0}.
std::string render_summary_json(const PlanSummary& summary);

// The --diff object: {"version": 1, "ok": true, "pending": ..., "changes":
// [...], "summary": {...}}.
std::string render_plan_json(const Plan& plan);

// The agent's services (and proxy) as a desired-state file. A service in
// neither an enabled nor the disabled status gets no "enabled"; a proxy
// that is not configured (no valid address or type) is left out.
std::string render_state_yaml(const AgentSnapshot& agent);

// The same state as one JSON object: {"version": 1, "services": {...}, "proxy": {...}}.
std::string render_state_json(const AgentSnapshot& agent);

// The --export --json object: {"version": 1, "ok": true, "state": {...}}.
std::string render_export_json(const AgentSnapshot& agent);
