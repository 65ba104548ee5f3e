// Plan: what must change for an agent to match a DesiredState, as an
// ordered list of changes, each with what it shows before and after. Made
// while the agent's answers are read: each listed service is planned when
// the listing shows it, so nothing of the listing is kept but the changes;
// the proxy once its own answer came.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "cli/desired_state/desired_state.h"

// One element of the agent's listing as it is read: views of untrusted
// text, valid only while the Planner is shown it.
struct ListedService {
    std::string_view name{};
    std::string_view status{};  // "connected", "in progress", "disconnected", "error", ...
    std::string_view ip_address{};
    int64_t port = 0;
    int64_t virtual_port = 0;
};

// The agent's answer to the proxy query.
struct AgentProxy {
    std::string type{};
    std::string ip_address{};
    int64_t port = 0;
    bool enabled = false;
};

enum class ChangeObject { service, proxy };
// In the order of the summary's counts.
enum class ChangeAction { create, update, enable, disable, remove, unchanged, not_managed };
constexpr size_t CHANGE_ACTION_COUNT = 7;

// The word for an action in JSON and in messages: "create" ... "not_managed".
const char* change_action_name(ChangeAction action);

// One side of a change; only the fields it shows are set.
struct ChangeState {
    std::optional<std::string> target{};    // a service's "ip_address:port"
    std::optional<int64_t> virtual_port{};  // a service's
    std::optional<std::string> address{};   // the proxy's "ip_address:port"
    std::optional<std::string> type{};      // the proxy's
    std::optional<bool> enabled{};
    std::optional<std::string> status{};  // the agent's status word, read before
};

struct Change {
    ChangeObject object = ChangeObject::service;
    ChangeAction action = ChangeAction::unchanged;
    std::string service{};                // empty for the proxy
    std::optional<ChangeState> before{};  // absent for create
    std::optional<ChangeState> after{};   // absent for remove and not_managed
    // The file's service that a create, update, enable or disable carries
    // out: an index into DesiredState::services.
    std::optional<size_t> desired{};
};

struct PlanSummary {
    std::array<int, CHANGE_ACTION_COUNT> counts{};

    void add(ChangeAction action) { counts[static_cast<size_t>(action)]++; }
    int of(ChangeAction action) const { return counts[static_cast<size_t>(action)]; }
    // True when a create, update, enable, disable or remove is counted.
    bool pending() const;
};

struct Plan {
    // Creates; updates (services in file order, then the proxy); enables and
    // disables (likewise); removes (agent order); unchanged (file order,
    // then the proxy); not_managed (agent order).
    std::vector<Change> changes{};
    // Filled instead of their changes when the Planner is not asked for
    // unchanged services in full: their names, views into the DesiredState,
    // in file order. They stand after the removes, as their changes would.
    std::vector<std::string_view> unchanged_names{};
    PlanSummary summary;
};

// What a Planner keeps between its calls (plan.cpp).
struct PlanWork;

// How an agent must change to match `desired`, which must outlive the
// Planner and the plan (the plan's unchanged_names are views into it).
// Services the agent has and the file does not name are removed with
// `prune`, else left alone as not_managed. A service counts as enabled when
// its status is "connected" or "in progress" and as disabled when
// "disconnected"; any other status plans an enable or a disable whenever
// the file names `enabled`. Clear services never cause an update: they
// cannot be read back. A name the agent lists twice is planned once, from
// its first entry. Unchanged services are changes with their before and
// after when `unchanged_in_full`, else only names in unchanged_names (all
// the human text shows of them). Every call may throw std::bad_alloc.
class Planner {
public:
    Planner(const DesiredState& desired, bool prune, bool unchanged_in_full = true);
    ~Planner();
    Planner(const Planner&) = delete;
    Planner& operator=(const Planner&) = delete;

    // The listing's next service, in the agent's order: planned now, not kept.
    void list(const ListedService& service);
    // The plan, once the whole listing was shown, with the agent's proxy
    // (read when the file names one). Called once.
    Plan finish(const std::optional<AgentProxy>& proxy);

private:
    std::unique_ptr<PlanWork> work_;
};
