// The plan: each listed service paired with the file's at its place, or
// matched by name, as the listing is read; the differences sorted into the
// groups a run carries out in turn.

#include "cli/desired_state/plan.h"

#include <algorithm>
#include <deque>
#include <iterator>
#include <string_view>
#include <utility>

#include "cli/desired_state/name_index.h"

// What the plan keeps while the listing is read: the changes, sorted into
// the groups of the plan's order and concatenated by finish(). The listing
// itself is not kept: each service is planned when it is shown.
struct PlanWork {
    const DesiredState& desired;
    bool prune = false;
    bool names_only = false;
    size_t listed = 0;    // the agent's services shown so far
    size_t in_place = 0;  // the first of them named the file's first services, place by place
    // Set when the listing leaves the file's order: from then on names are
    // matched through `names`, the file's (value: file index) and those of
    // the agent's services the file does not name (value: kNotNamed), whose
    // texts `unnamed` keeps.
    bool by_name = false;
    NameIndex names{};
    std::deque<std::string> unnamed{};
    std::vector<bool> matched{};  // the file's services listed, once by name
    std::vector<Change> creates{}, updates{}, toggles{}, removes{};
    // Unchanged services as (file index, agent's status); their changes are
    // built into the plan at the end (only the status is the agent's own:
    // the rest equals the file's). Names only go straight to
    // unchanged_names while the order holds.
    std::vector<std::pair<size_t, std::string>> unchanged{};
    std::vector<std::string_view> unchanged_names{};
    std::vector<Change> unchanged_proxy{}, not_managed{};
};

namespace {

constexpr uint32_t kNotNamed = UINT32_MAX;

// True for connected and in progress, false for disconnected, none else.
std::optional<bool> enabled_by_status(std::string_view status) {
    if (status == "connected" || status == "in progress") {
        return true;
    }
    return status == "disconnected" ? std::optional<bool>(false) : std::nullopt;
}

std::string endpoint_text(std::string_view address, int64_t port) {
    std::string text(address);
    return text.append(":").append(std::to_string(port));
}

std::string upper_case(std::string text) {
    for (char& c : text) {
        c = c >= 'a' && c <= 'z' ? static_cast<char>(c - 32) : c;
    }
    return text;
}

// Everything the agent shows of a service.
ChangeState agent_state(const ListedService& service) {
    return ChangeState{.target = endpoint_text(service.ip_address, service.port),
                       .virtual_port = service.virtual_port,
                       .enabled = enabled_by_status(service.status),
                       .status = std::string(service.status)};
}

// Everything the file says of a service that the agent can show.
ChangeState desired_state(const DesiredService& service) {
    return ChangeState{.target = service.target.text(),
                       .virtual_port = service.effective_virtual_port(),
                       .enabled = service.enabled};
}

Change service_change(ChangeAction action, const std::string& name, size_t desired) {
    return Change{
        .object = ChangeObject::service, .action = action, .service = name, .desired = desired};
}

// Whether the file asks an enable or disable of a service that is `now`
// enabled, disabled, or neither.
bool toggled(const DesiredService& service, std::optional<bool> now) {
    return service.enabled.has_value() && now != service.enabled;
}

// The enable or disable of a service that is `now`, in `status` (none when
// the service is new).
Change toggle(const DesiredService& service, size_t index, std::optional<bool> now,
              const std::string_view* status) {
    Change change = service_change(*service.enabled ? ChangeAction::enable : ChangeAction::disable,
                                   service.name, index);
    change.before = ChangeState{.enabled = now};
    if (status != nullptr) {
        change.before->status = std::string(*status);
    }
    change.after = ChangeState{.enabled = service.enabled};
    return change;
}

// The update of a service the agent has at another target or virtual port.
Change update_of(const DesiredService& service, size_t index, const ListedService& agent,
                 bool moved, bool ported) {
    Change update = service_change(ChangeAction::update, service.name, index);
    update.before.emplace();
    update.after.emplace();
    if (moved) {
        update.before->target = endpoint_text(agent.ip_address, agent.port);
        update.after->target = service.target.text();
    }
    if (ported) {
        update.before->virtual_port = agent.virtual_port;
        update.after->virtual_port = service.effective_virtual_port();
    }
    return update;
}

// The update, enable or disable, or unchanged entry of a service the agent
// has.
void plan_existing(const DesiredService& service, size_t index, const ListedService& agent,
                   PlanWork* work) {
    // The file's address never holds a colon, so equal parts are equal texts.
    const bool moved =
        agent.port != service.target.port || agent.ip_address != service.target.address;
    const bool ported = agent.virtual_port != service.effective_virtual_port();
    if (moved || ported) {
        work->updates.push_back(update_of(service, index, agent, moved, ported));
    }
    const std::optional<bool> now = enabled_by_status(agent.status);
    const bool switched = toggled(service, now);
    if (switched) {
        work->toggles.push_back(toggle(service, index, now, &agent.status));
    }
    if (moved || ported || switched) {
        return;
    }
    if (work->names_only && !work->by_name) {
        work->unchanged_names.push_back(service.name);
    } else {
        work->unchanged.emplace_back(index, work->names_only ? "" : agent.status);
    }
}

// The unchanged entry of the file's service `index`, which the agent shows
// at the file's target and virtual port, in `status`.
Change unchanged_service(const DesiredService& service, size_t index, const std::string& status) {
    Change same = service_change(ChangeAction::unchanged, service.name, index);
    same.before = ChangeState{.target = service.target.text(),
                              .virtual_port = service.effective_virtual_port(),
                              .enabled = enabled_by_status(status),
                              .status = status};
    same.after = ChangeState{.target = same.before->target,
                             .virtual_port = service.effective_virtual_port(),
                             .enabled = service.enabled};
    return same;
}

// The listing left the file's order: every service from here on is matched
// by name. Those shown so far were the file's first, each the first of its
// name, and are planned already.
void start_by_name(PlanWork* work) {
    const std::vector<DesiredService>& services = work->desired.services;
    work->names = NameIndex(services.size() + 16);
    for (size_t i = 0; i < services.size(); i++) {
        work->names.add(services[i].name, static_cast<uint32_t>(i));
    }
    work->matched.assign(services.size(), false);
    std::fill_n(work->matched.begin(), work->in_place, true);
    work->by_name = true;
}

// A listed service matched by name: planned against the file's service of
// that name, or removed or not_managed when the file does not name it; a
// name seen before is not planned again.
void plan_by_name(const ListedService& agent, PlanWork* work) {
    if (const uint32_t* found = work->names.find(agent.name)) {
        if (*found != kNotNamed && !work->matched[*found]) {
            work->matched[*found] = true;
            plan_existing(work->desired.services[*found], *found, agent, work);
        }
        return;
    }
    const std::string& name = work->unnamed.emplace_back(agent.name);
    work->names.add(name, kNotNamed);
    Change change{.object = ChangeObject::service,
                  .action = work->prune ? ChangeAction::remove : ChangeAction::not_managed,
                  .service = name,
                  .before = agent_state(agent)};
    (work->prune ? work->removes : work->not_managed).push_back(std::move(change));
}

// Creates (and their enables) for the file's services the agent did not list.
void plan_unlisted(PlanWork* work) {
    const std::vector<DesiredService>& services = work->desired.services;
    for (size_t i = work->in_place; i < services.size(); i++) {
        if (work->by_name && work->matched[i]) {
            continue;
        }
        Change create = service_change(ChangeAction::create, services[i].name, i);
        create.after = desired_state(services[i]);
        work->creates.push_back(std::move(create));
        if (toggled(services[i], false)) {
            work->toggles.push_back(toggle(services[i], i, false, nullptr));
        }
    }
}

// Services matched by name were planned in listing order: back to file order.
void sort_by_file_order(PlanWork* work) {
    auto by_index = [](const Change& a, const Change& b) { return *a.desired < *b.desired; };
    std::sort(work->updates.begin(), work->updates.end(), by_index);
    std::sort(work->toggles.begin(), work->toggles.end(), by_index);
    std::sort(work->unchanged.begin(), work->unchanged.end(),
              [](const auto& a, const auto& b) { return a.first < b.first; });
}

// The proxy's update, enable or disable, or unchanged entry.
void plan_proxy(const DesiredProxy& desired, const std::optional<AgentProxy>& agent,
                PlanWork* work) {
    Change update{.object = ChangeObject::proxy, .action = ChangeAction::update};
    update.after.emplace();
    if (agent) {
        update.before.emplace();
    }
    const std::string address_now = agent ? endpoint_text(agent->ip_address, agent->port) : "";
    if (!agent || address_now != desired.address.text()) {
        update.after->address = desired.address.text();
        if (agent) {
            update.before->address = address_now;
        }
    }
    if (!agent || upper_case(agent->type) != desired.type) {
        update.after->type = desired.type;
        if (agent) {
            update.before->type = agent->type;
        }
    }
    const bool updated = update.after->address || update.after->type;
    if (updated) {
        work->updates.push_back(std::move(update));
    }
    const std::optional<bool> now = agent ? std::optional<bool>(agent->enabled) : std::nullopt;
    const bool toggled = desired.enabled.has_value() && desired.enabled != now;
    if (toggled) {
        Change change{.object = ChangeObject::proxy,
                      .action = *desired.enabled ? ChangeAction::enable : ChangeAction::disable,
                      .before = ChangeState{.enabled = now},
                      .after = ChangeState{.enabled = desired.enabled}};
        work->toggles.push_back(std::move(change));
    }
    if (!updated && !toggled) {
        work->unchanged_proxy.push_back(Change{
            .object = ChangeObject::proxy,
            .action = ChangeAction::unchanged,
            .before = ChangeState{.address = address_now, .type = agent->type, .enabled = now},
            .after = ChangeState{.address = desired.address.text(),
                                 .type = desired.type,
                                 .enabled = desired.enabled}});
    }
}

// The groups concatenated in the plan's order; unchanged services built
// straight into it, or given as names.
Plan assemble(PlanWork* work) {
    Plan plan;
    plan.unchanged_names = std::move(work->unchanged_names);
    const size_t built_unchanged = work->names_only ? 0 : work->unchanged.size();
    plan.changes.reserve(work->creates.size() + work->updates.size() + work->toggles.size() +
                         work->removes.size() + built_unchanged + work->unchanged_proxy.size() +
                         work->not_managed.size());
    for (std::vector<Change>* group :
         {&work->creates, &work->updates, &work->toggles, &work->removes}) {
        std::move(group->begin(), group->end(), std::back_inserter(plan.changes));
    }
    for (const auto& [index, status] : work->unchanged) {
        const DesiredService& service = work->desired.services[index];
        if (work->names_only) {
            plan.unchanged_names.push_back(service.name);
        } else {
            plan.changes.push_back(unchanged_service(service, index, status));
        }
    }
    for (std::vector<Change>* group : {&work->unchanged_proxy, &work->not_managed}) {
        std::move(group->begin(), group->end(), std::back_inserter(plan.changes));
    }
    for (const Change& change : plan.changes) {
        plan.summary.add(change.action);
    }
    plan.summary.counts[static_cast<size_t>(ChangeAction::unchanged)] +=
        static_cast<int>(plan.unchanged_names.size());
    return plan;
}

}  // namespace

const char* change_action_name(ChangeAction action) {
    constexpr std::array<const char*, CHANGE_ACTION_COUNT> kNames{
        "create", "update", "enable", "disable", "remove", "unchanged", "not_managed"};
    return kNames[static_cast<size_t>(action)];
}

bool PlanSummary::pending() const {
    return of(ChangeAction::create) + of(ChangeAction::update) + of(ChangeAction::enable) +
               of(ChangeAction::disable) + of(ChangeAction::remove) >
           0;
}

Planner::Planner(const DesiredState& desired, bool prune, bool unchanged_in_full)
    : work_(new PlanWork{.desired = desired, .prune = prune, .names_only = !unchanged_in_full}) {
    (unchanged_in_full ? work_->unchanged.reserve(desired.services.size())
                       : work_->unchanged_names.reserve(desired.services.size()));
}

Planner::~Planner() = default;

// While the listing names the file's services place by place (an export
// read back), each pairs with its own place; from the first that does
// not, names are matched through an index.
void Planner::list(const ListedService& service) {
    PlanWork& work = *work_;
    const std::vector<DesiredService>& services = work.desired.services;
    const size_t place = work.listed++;
    if (!work.by_name && place < services.size() && services[place].name == service.name) {
        work.in_place++;
        plan_existing(services[place], place, service, &work);
        return;
    }
    if (!work.by_name) {
        start_by_name(&work);
    }
    plan_by_name(service, &work);
}

// Creates for what was not listed, the proxy, then the plan in its order.
Plan Planner::finish(const std::optional<AgentProxy>& proxy) {
    PlanWork& work = *work_;
    plan_unlisted(&work);
    if (work.by_name) {
        sort_by_file_order(&work);
    }
    if (work.desired.proxy) {
        plan_proxy(*work.desired.proxy, proxy, &work);
    }
    return assemble(&work);
}
