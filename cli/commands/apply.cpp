// --apply: the plan's steps carried out one at a time on the connection
// that read the agent's state. Each step sends its request and, for a
// create, an enable or a disable, follows the service's events as -a, -s
// and -d do, with their time-outs (or --wait). Each step is reported when
// done; the first that fails stops the run and the report says what was
// done, what failed and what was not tried.

#include <cstdlib>
#include <cstring>
#include <string>

#include "cli/agent/session.h"
#include "cli/agent/tenants.h"
#include "cli/commands/desired_run.h"
#include "cli/commands/families.h"
#include "cli/commands/requests.h"
#include "cli/commands/run.h"
#include "cli/commands/strict_rules.h"
#include "cli/desired_state/render.h"

namespace {

constexpr size_t REASON_LIMIT = 99;

// Where the current step is.
enum class Phase {
    idle,    // start_apply has not run
    answer,  // its request is sent, the answer awaited
    events,  // accepted; the service's events are awaited
};

// The apply's progress through the plan.
struct Applying {
    Phase phase = Phase::idle;
    std::vector<const Change*> steps;  // the plan's changes that alter the agent, in order
    size_t current = 0;                // index into steps
    PlanSummary done;                  // steps done, by action
    int64_t seconds = 0;               // the current step's time-out
    std::string name_sent;             // the current step's service as the agent reads it
    int progress_events = 0;           // an enable's "in progress" events
    bool sync_started = false;         // an enable's "connected" event
    const char* key = nullptr;         // for creates; read only when the plan creates
};

// Made at first use: other commands do not construct it at start-up.
Applying& progress() {
    static Applying state;
    return state;
}

// The request records of the step being sent; the builders read them when
// the request goes out.
ServiceRequest service_request{};
ProxyRequest proxy_request{};
int proxy_switch = 0;

const Change& current_change() {
    return *progress().steps[progress().current];
}

const DesiredService& desired_service(const Change& change) {
    return desired_run().desired.services[*change.desired];
}

// "service 'web'" or "the proxy", as the messages name the subject.
Message subject(const Change& change) {
    if (change.object == ChangeObject::proxy) {
        return Message("the proxy");
    }
    return Message("service '").quote(change.service).say("'");
}

// {"object": ..., "service": ..., "action": ...}: a step as JSON.
JsonWriter step_fields(const Change& change) {
    JsonWriter fields;
    fields.text("object", change.object == ChangeObject::proxy ? "proxy" : "service");
    if (change.object == ChangeObject::service) {
        fields.text("service", change.service.c_str());
    }
    return fields.text("action", change_action_name(change.action));
}

// The plan's line for a change, escaped for a terminal.
std::string change_text(const Change& change) {
    Plan one;
    one.changes.push_back(change);
    std::string text = render_plan_text(one);
    return text.substr(0, text.find('\n'));
}

// "1 created, 0 updated, 2 enabled, 0 disabled, 0 removed".
std::string done_counts(const PlanSummary& done) {
    auto count = [&done](ChangeAction action) { return std::to_string(done.of(action)); };
    return count(ChangeAction::create) + " created, " + count(ChangeAction::update) + " updated, " +
           count(ChangeAction::enable) + " enabled, " + count(ChangeAction::disable) +
           " disabled, " + count(ChangeAction::remove) + " removed";
}

// The steps done, plus the plan's unchanged and not managed entries.
PlanSummary final_summary() {
    PlanSummary summary = progress().done;
    for (ChangeAction kept : {ChangeAction::unchanged, ChangeAction::not_managed}) {
        summary.counts[static_cast<size_t>(kept)] = desired_run().plan.summary.of(kept);
    }
    return summary;
}

bool changed_something() {
    return progress().done.pending();
}

// Every step is done.
[[noreturn]] void finish_applied() {
    const PlanSummary summary = final_summary();
    const std::string kept = std::to_string(summary.of(ChangeAction::unchanged)) + " unchanged, " +
                             std::to_string(summary.of(ChangeAction::not_managed)) + " not managed";
    Message text(changed_something() ? "Applied: " : "Nothing to do: the agent matches the file (");
    text.say(changed_something() ? done_counts(summary) + "; " + kept + ".\n" : kept + ").\n");
    finish(Outcome::success(text, JsonWriter()
                                      .boolean("changed", changed_something())
                                      .value("summary", render_summary_json(summary))));
}

// The current step failed with `failure`: its JSON step object, then the
// final report of what was done and what was not tried.
[[noreturn]] void step_failed(Failure failure, Message why, const char* reason = nullptr) {
    const Change& change = current_change();
    Message message = Message("Could not ")
                          .say(change_action_name(change.action))
                          .say(" ")
                          .add(subject(change))
                          .say(": ")
                          .add(why);
    report(Progress{{}, step_fields(change).text("state", "failed").text("reason", reason)});
    Message human = Message().say(change_text(change)).say(" ... failed: ").add(message).say("\n");
    human.say("Stopped: " + done_counts(progress().done) + ".\n");
    std::vector<std::string> not_tried;
    for (size_t i = progress().current + 1; i < progress().steps.size(); i++) {
        const Change& later = *progress().steps[i];
        human.say(not_tried.empty() ? "Not tried:\n" : "").say("  " + change_text(later) + "\n");
        not_tried.push_back(step_fields(later).object());
    }
    JsonWriter fields;
    if (change.object == ChangeObject::service) {
        fields.text("service", change.service.c_str());
    }
    fields.text("reason", reason)
        .boolean("changed", changed_something())
        .value("summary", render_summary_json(final_summary()))
        .value("not_tried", json_array(not_tried.data(), not_tried.size()));
    const char last = message.raw().empty() ? '.' : message.raw().back();
    if (last != '.' && last != '!' && last != '?') {
        message.say(".");
    }
    Outcome outcome = Outcome::fail(failure, message, fields);
    outcome.human = HumanException{{}, human, human_status(failure)};
    outcome.status = 1;
    finish(outcome);
}

// The agent refused the step; its reason, when it gave one, is shown.
[[noreturn]] void refused(const std::optional<std::string>& reason) {
    if (!reason) {
        step_failed(Failure::refused, "the Transfer Agent refused it");
    }
    step_failed(Failure::refused, Message().quote(*reason, REASON_LIMIT), reason->c_str());
}

[[noreturn]] void unreadable() {
    step_failed(Failure::bad_answer, "the Transfer Agent's answer could not be read");
}

void send_step();

// The current step is done: say so, then the next one.
void step_done() {
    const Change& change = current_change();
    report(Progress{Message().say(change_text(change)).say(" ... done\n"),
                    step_fields(change).text("state", "done")});
    progress().done.add(change.action);
    progress().current++;
    send_step();
}

// The time-out of a step: -a's, -s's and -d's own (or --wait) for those
// that follow events, the row's for the others.
int64_t step_seconds(const Change& change) {
    const Invocation& in = *desired_run().invocation;
    const bool followed =
        change.object == ChangeObject::service &&
        (change.action == ChangeAction::create || change.action == ChangeAction::enable ||
         change.action == ChangeAction::disable);
    if (!followed) {
        return running().row->timeout_seconds;
    }
    if (in.wait != nullptr) {
        return wait_seconds(in);
    }
    const CommandId single = change.action == ChangeAction::create   ? CommandId::add
                             : change.action == ChangeAction::enable ? CommandId::enable
                                                                     : CommandId::disable;
    return command_row(single).timeout_seconds;
}

// The edit_tenant record of an update: the file's target and virtual port
// (the target's port when the file gives none).
ServiceRequest* update_record(const DesiredService& service) {
    ServiceRequest* request = &service_request;
    snprintf(request->name, sizeof request->name, "%s", service.name.c_str());
    snprintf(request->ip_address, sizeof request->ip_address, "%s", service.target.address.c_str());
    request->port = service.target.port;
    request->virtual_port = service.effective_virtual_port();
    return request;
}

// The add_tenant record of a create: the update's fields, the file's clear
// services and the run's key.
void* create_record(const DesiredService& service) {
    ServiceRequest* request = update_record(service);
    snprintf(request->api_key, sizeof request->api_key, "%s", progress().key);
    request->clear_services = LinkedList.create(nullptr);
    if (request->clear_services == nullptr) {
        finish(Outcome::fail(Failure::internal, OUT_OF_MEMORY));
    }
    for (const std::string& clear : service.clear_services) {
        char* copy = strdup(clear.c_str());
        if (copy == nullptr || LinkedList.add(request->clear_services, copy) == nullptr) {
            free(copy);
            finish(Outcome::fail(Failure::internal, OUT_OF_MEMORY));
        }
    }
    return request;
}

void step_answer(JsonValue* data);

// Queues the current step's request with its time-out, or ends the run
// when every step is done.
void send_step() {
    if (progress().current == progress().steps.size()) {
        finish_applied();
    }
    const Change& change = current_change();
    progress().phase = Phase::answer;
    progress().seconds = step_seconds(change);
    progress().name_sent = as_sent(change.service.c_str());
    progress().progress_events = 0;
    progress().sync_started = false;
    arm_desired_timeout(progress().seconds);
    auto* name = const_cast<char*>(change.service.c_str());  // the builders only read it
    if (change.object == ChangeObject::proxy) {
        const DesiredProxy& proxy = *desired_run().desired.proxy;
        if (change.action == ChangeAction::update) {
            snprintf(proxy_request.ip_address, sizeof proxy_request.ip_address, "%s",
                     proxy.address.address.c_str());
            proxy_request.port = proxy.address.port;
            snprintf(proxy_request.proxy_type, sizeof proxy_request.proxy_type, "%s",
                     proxy.type.c_str());
            Session.send("save_proxy", build_save_proxy_request, &proxy_request,
                         guarded<step_answer>);
        } else {
            proxy_switch = change.action == ChangeAction::enable ? 1 : 0;
            Session.send("set_proxy", build_enable_flag_request, &proxy_switch,
                         guarded<step_answer>);
        }
        return;
    }
    switch (change.action) {
        case ChangeAction::create:
            Session.send("add_tenant", build_add_request, create_record(desired_service(change)),
                         guarded<step_answer>);
            break;
        case ChangeAction::update:
            Session.send("edit_tenant", build_edit_request, update_record(desired_service(change)),
                         guarded<step_answer>);
            break;
        case ChangeAction::enable:
            Session.send("connect_tenants", build_connect_request, name, guarded<step_answer>);
            break;
        case ChangeAction::disable:
            Session.send("disconnect_tenants", build_disconnect_request, name,
                         guarded<step_answer>);
            break;
        default:
            Session.send("remove_tenant", build_remove_request, name, guarded<step_answer>);
            break;
    }
}

bool names_step_service(const std::optional<std::string>& name) {
    return name && *name == progress().name_sent;
}

// {key: bool, "reason": text}: 1 accepted, 0 refused (reason read), -1
// unreadable.
int flag_answer(const JsonValue* data, const char* key, std::optional<std::string>* reason) {
    const int accepted = data != nullptr ? json_get_bool_value(data, key) : -1;
    if (accepted == 0) {
        *reason = read_text(data, "reason");
    }
    return accepted;
}

// connect_tenants or disconnect_tenants: the first element naming the
// service with a readable "ack", as -s and -d read it.
int ack_answer(const JsonValue* data, std::optional<std::string>* reason) {
    int accepted = -1;
    TenantsRead read = read_tenants(data, [&](TenantElement element, const Tenant& tenant) {
        if (element != TenantElement::tenant || tenant.ack < 0 ||
            !names_step_service(tenant.name)) {
            return TenantWalk::next;
        }
        accepted = tenant.ack;
        *reason = tenant.reason;
        return TenantWalk::stop;
    });
    if (read == TenantsRead::out_of_memory) {
        finish(Outcome::fail(Failure::internal, OUT_OF_MEMORY));
    }
    return accepted;
}

// The answer to the current step's request.
void step_answer(JsonValue* data) {
    const Change& change = current_change();
    std::optional<std::string> reason;
    int accepted = -1;
    bool followed = false;
    if (change.object == ChangeObject::proxy) {
        accepted = flag_answer(data, "success", &reason);
    } else if (change.action == ChangeAction::enable || change.action == ChangeAction::disable) {
        accepted = ack_answer(data, &reason);
        followed = true;
    } else {
        const char* key = change.action == ChangeAction::create   ? "added"
                          : change.action == ChangeAction::update ? "edited"
                                                                  : "removed";
        accepted = flag_answer(data, key, &reason);
        followed = change.action == ChangeAction::create;
    }
    if (accepted < 0) {
        unreadable();
    }
    if (accepted == 0) {
        refused(reason);
    }
    if (followed && !desired_run().invocation->no_wait) {
        progress().phase = Phase::events;
        return;
    }
    step_done();
}

// What one event element naming the service means for the current step:
// -a's, -s's and -d's rules.
enum class Verdict { next, done, failed };

Verdict event_verdict(const Change& change, const Tenant& tenant, std::optional<std::string>* why) {
    if (change.action == ChangeAction::create) {
        return Verdict::done;  // any element naming it, whatever its status
    }
    const std::string status = tenant.status.value_or("");
    if (change.action == ChangeAction::disable) {
        return status == "disconnected" ? Verdict::done : Verdict::next;
    }
    if (status == "in progress") {
        progress().progress_events++;
    } else if (status == "connected") {
        progress().sync_started = true;
        if (tenant.synchronized == "true") {
            return Verdict::done;
        }
    } else if (status == "disconnected") {
        *why = "received a disconnection event";
        return Verdict::failed;
    } else if (status == "error") {
        *why = tenant.reason;
        return Verdict::failed;
    }
    return Verdict::next;
}

}  // namespace

void start_apply() {
    const Plan& plan = desired_run().plan;
    for (const Change& change : plan.changes) {
        if (change.action != ChangeAction::unchanged &&
            change.action != ChangeAction::not_managed) {
            progress().steps.push_back(&change);
        }
    }
    const Invocation& in = *desired_run().invocation;
    if (plan.summary.of(ChangeAction::create) > 0) {
        if (in.api_key == nullptr && !in.key_elsewhere) {
            finish(Outcome::fail(Failure::bad_argument,
                                 "Creating services needs an API key: give --api-key-file, "
                                 "SYLVANE_API_KEY or -k.\n"));
        }
        progress().key = checked_key(in);
        guard_key(in);
    }
    const bool follows = !in.no_wait && (plan.summary.of(ChangeAction::create) > 0 ||
                                         plan.summary.of(ChangeAction::enable) > 0 ||
                                         plan.summary.of(ChangeAction::disable) > 0);
    if (follows && Session.follow_tenant_events(guarded<desired_event>) != SESSION_OK) {
        finish(Outcome::fail(Failure::internal, OUT_OF_MEMORY));
    }
    send_step();
}

bool applying() {
    return progress().phase != Phase::idle;
}

// Events count once the step's request was accepted, as the single
// commands count them after their acknowledgement.
void apply_event(const JsonValue* data) {
    if (progress().phase != Phase::events || data == nullptr) {
        return;
    }
    const Change& change = current_change();
    Verdict verdict = Verdict::next;
    bool malformed = false;
    std::optional<std::string> why;
    TenantsRead read = read_tenants(data, [&](TenantElement element, const Tenant& tenant) {
        if (element == TenantElement::not_a_string) {
            malformed = true;
        } else if (element == TenantElement::tenant && names_step_service(tenant.name) &&
                   (tenant.status || change.action == ChangeAction::create)) {
            verdict = event_verdict(change, tenant, &why);
        }
        return malformed || verdict != Verdict::next ? TenantWalk::stop : TenantWalk::next;
    });
    if (read == TenantsRead::out_of_memory) {
        finish(Outcome::fail(Failure::internal, OUT_OF_MEMORY));
    }
    if (read == TenantsRead::missing || malformed) {
        step_failed(Failure::bad_answer, "the Transfer Agent sent an event it could not read");
    }
    if (verdict == Verdict::failed) {
        step_failed(Failure::failed, Message().quote(why.value_or(""), REASON_LIMIT),
                    why ? why->c_str() : nullptr);
    }
    if (verdict == Verdict::done) {
        step_done();
    }
}

// An enable that progressed and started syncing counts as done, as -s
// counts it: the agent keeps synchronising after the tool leaves.
void apply_stopped(bool timed_out) {
    const Change& change = current_change();
    if (timed_out && change.action == ChangeAction::enable && progress().progress_events > 0 &&
        progress().sync_started) {
        step_done();
        return;
    }
    if (!timed_out) {
        step_failed(Failure::bad_answer, "the Transfer Agent ended the conversation");
    }
    step_failed(
        Session.connected() ? Failure::timeout : Failure::unreachable,
        Message("not settled within ").say(std::to_string(progress().seconds)).say(" seconds"));
}

// The agent asked the tool to disconnect: before the first step the usual
// busy failure, during the apply the report of what was done and not tried.
void apply_busy() {
    without_running_out([] {
        if (!applying()) {
            fail_busy();
        }
        step_failed(Failure::busy, "the Transfer Agent serves another client now");
    });
}
