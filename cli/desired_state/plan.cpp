// The plan: each desired service matched by name with the agent's, the
// differences sorted into the groups a run carries out in turn.

#include "cli/desired_state/plan.h"

#include <iterator>
#include <string_view>
#include <utility>

#include "cli/desired_state/name_index.h"

namespace {

// Changes in the groups of the plan's order, concatenated at the end. The
// unchanged services, most of a large plan, are kept as pairs and built
// straight into the plan: no second copy of 10,000 entries.
// When only names are asked for, unchanged services go straight to
// `unchanged_names` and no pair is kept.
struct Groups {
    bool names_only = false;
    std::vector<Change> creates, updates, toggles, removes;
    std::vector<std::pair<size_t, const AgentService*>> unchanged_services;  // file index, agent's
    std::vector<std::string_view> unchanged_names;
    std::vector<Change> unchanged_proxy, not_managed;
};

// True for connected and in progress, false for disconnected, none else.
std::optional<bool> enabled_by_status(const std::string& status) {
    if (status == "connected" || status == "in progress") {
        return true;
    }
    return status == "disconnected" ? std::optional<bool>(false) : std::nullopt;
}

std::string endpoint_text(const std::string& address, int64_t port) {
    return address + ":" + std::to_string(port);
}

std::string upper_case(std::string text) {
    for (char& c : text) {
        c = c >= 'a' && c <= 'z' ? static_cast<char>(c - 32) : c;
    }
    return text;
}

// Everything the agent shows of a service.
ChangeState agent_state(const AgentService& service) {
    return ChangeState{.target = endpoint_text(service.ip_address, service.port),
                       .virtual_port = service.virtual_port,
                       .enabled = enabled_by_status(service.status),
                       .status = service.status};
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

// The enable or disable that `want` asks of a service in `status` (empty
// when the service is new), if any.
std::optional<Change> toggle(const DesiredService& service, size_t index,
                             const std::string* status) {
    if (!service.enabled.has_value()) {
        return std::nullopt;
    }
    std::optional<bool> now = status != nullptr ? enabled_by_status(*status) : false;
    if (now == service.enabled) {
        return std::nullopt;
    }
    Change change = service_change(*service.enabled ? ChangeAction::enable : ChangeAction::disable,
                                   service.name, index);
    change.before = ChangeState{.enabled = now};
    if (status != nullptr) {
        change.before->status = *status;
    }
    change.after = ChangeState{.enabled = service.enabled};
    return change;
}

// The update, enable or disable, or unchanged entry of a service the agent
// has.
void plan_existing(const DesiredService& service, size_t index, const AgentService& agent,
                   Groups* groups) {
    // The file's address never holds a colon, so equal parts are equal texts.
    const bool moved =
        agent.port != service.target.port || agent.ip_address != service.target.address;
    const bool ported = agent.virtual_port != service.effective_virtual_port();
    if (moved || ported) {
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
        groups->updates.push_back(std::move(update));
    }
    std::optional<Change> toggled = toggle(service, index, &agent.status);
    if (toggled) {
        groups->toggles.push_back(std::move(*toggled));
    }
    if (!moved && !ported && !toggled && groups->names_only) {
        groups->unchanged_names.push_back(service.name);
    } else if (!moved && !ported && !toggled) {
        groups->unchanged_services.emplace_back(index, &agent);
    }
}

// The unchanged entry of the file's service `index`: all it and the agent show.
Change unchanged_service(const DesiredService& service, size_t index, const AgentService& agent) {
    Change same = service_change(ChangeAction::unchanged, service.name, index);
    same.before = ChangeState{.target = endpoint_text(agent.ip_address, agent.port),
                              .virtual_port = agent.virtual_port,
                              .enabled = enabled_by_status(agent.status),
                              .status = agent.status};
    same.after = ChangeState{.target = service.target.text(),
                             .virtual_port = service.effective_virtual_port(),
                             .enabled = service.enabled};
    return same;
}

// Whether the agent lists exactly the file's names in the file's order, as
// when an export is read back. The file's names are distinct, so the
// agent's are too: each service pairs with the entry at its own place.
bool same_order(const DesiredState& desired, const std::vector<AgentService>& listed) {
    if (listed.size() != desired.services.size()) {
        return false;
    }
    for (size_t i = 0; i < listed.size(); i++) {
        if (listed[i].name != desired.services[i].name) {
            return false;
        }
    }
    return true;
}

// Services matched by name through an index of the agent's; creates for the
// file's that are not listed, removes or not_managed for the agent's that
// are not named.
void plan_by_name(const DesiredState& desired, const std::vector<AgentService>& listed, bool prune,
                  Groups* groups) {
    NameIndex first_listed(listed.size());  // the first of a name wins
    for (size_t i = 0; i < listed.size(); i++) {
        first_listed.add(listed[i].name, static_cast<uint32_t>(i));
    }
    std::vector<bool> named(listed.size());  // first entries the file names
    for (size_t i = 0; i < desired.services.size(); i++) {
        const DesiredService& service = desired.services[i];
        if (const uint32_t* found = first_listed.find(service.name)) {
            named[*found] = true;
            plan_existing(service, i, listed[*found], groups);
            continue;
        }
        Change create = service_change(ChangeAction::create, service.name, i);
        create.after = desired_state(service);
        groups->creates.push_back(std::move(create));
        if (std::optional<Change> enable = toggle(service, i, nullptr)) {
            groups->toggles.push_back(std::move(*enable));
        }
    }
    for (size_t i = 0; i < listed.size(); i++) {
        if (named[i] || *first_listed.find(listed[i].name) != i) {
            continue;
        }
        Change change{.object = ChangeObject::service,
                      .action = prune ? ChangeAction::remove : ChangeAction::not_managed,
                      .service = listed[i].name,
                      .before = agent_state(listed[i])};
        (prune ? groups->removes : groups->not_managed).push_back(std::move(change));
    }
}

// Every service of the file and of the agent into its group.
void plan_services(const DesiredState& desired, const AgentSnapshot& agent, bool prune,
                   Groups* groups) {
    (groups->names_only ? groups->unchanged_names.reserve(desired.services.size())
                        : groups->unchanged_services.reserve(desired.services.size()));
    if (!same_order(desired, agent.services)) {
        plan_by_name(desired, agent.services, prune, groups);
        return;
    }
    for (size_t i = 0; i < desired.services.size(); i++) {
        plan_existing(desired.services[i], i, agent.services[i], groups);
    }
}

void plan_proxy(const DesiredProxy& desired, const std::optional<AgentProxy>& agent,
                Groups* groups) {
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
        groups->updates.push_back(std::move(update));
    }
    const std::optional<bool> now = agent ? std::optional<bool>(agent->enabled) : std::nullopt;
    const bool toggled = desired.enabled.has_value() && desired.enabled != now;
    if (toggled) {
        Change change{.object = ChangeObject::proxy,
                      .action = *desired.enabled ? ChangeAction::enable : ChangeAction::disable,
                      .before = ChangeState{.enabled = now},
                      .after = ChangeState{.enabled = desired.enabled}};
        groups->toggles.push_back(std::move(change));
    }
    if (!updated && !toggled) {
        groups->unchanged_proxy.push_back(Change{
            .object = ChangeObject::proxy,
            .action = ChangeAction::unchanged,
            .before = ChangeState{.address = address_now, .type = agent->type, .enabled = now},
            .after = ChangeState{.address = desired.address.text(),
                                 .type = desired.type,
                                 .enabled = desired.enabled}});
    }
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

Plan make_plan(const DesiredState& desired, const AgentSnapshot& agent, bool prune,
               bool unchanged_in_full) {
    Groups groups;
    groups.names_only = !unchanged_in_full;
    plan_services(desired, agent, prune, &groups);
    if (desired.proxy) {
        plan_proxy(*desired.proxy, agent.proxy, &groups);
    }
    Plan plan;
    plan.changes.reserve(groups.creates.size() + groups.updates.size() + groups.toggles.size() +
                         groups.removes.size() + groups.unchanged_services.size() +
                         groups.unchanged_proxy.size() + groups.not_managed.size());
    plan.unchanged_names = std::move(groups.unchanged_names);
    for (std::vector<Change>* group :
         {&groups.creates, &groups.updates, &groups.toggles, &groups.removes}) {
        std::move(group->begin(), group->end(), std::back_inserter(plan.changes));
    }
    for (const auto& [index, listed] : groups.unchanged_services) {
        plan.changes.push_back(unchanged_service(desired.services[index], index, *listed));
    }
    for (std::vector<Change>* group : {&groups.unchanged_proxy, &groups.not_managed}) {
        std::move(group->begin(), group->end(), std::back_inserter(plan.changes));
    }
    for (const Change& change : plan.changes) {
        plan.summary.add(change.action);
    }
    plan.summary.counts[static_cast<size_t>(ChangeAction::unchanged)] +=
        static_cast<int>(plan.unchanged_names.size());
    return plan;
}
