// The desired-state commands: --diff and --export, and the reading and
// planning the apply starts from. Each reads the file before connecting,
// then the agent's services (and its proxy when the file names one, or for
// an export) on one connection, and plans.

#include <event2/event.h>

#include <new>
#include <string>

#include "cli/agent/session.h"
#include "cli/agent/tenants.h"
#include "cli/commands/desired_run.h"
#include "cli/commands/families.h"
#include "cli/commands/requests.h"
#include "cli/commands/run.h"
#include "cli/desired_state/render.h"

namespace {

constexpr const char* BAD_LISTING =
    "Error while listing the services. Server responded with bad formatted answer\n";
constexpr const char* ENDED_EARLY =
    "The Transfer Agent ended the conversation before the run did.\n";

// Never freed: the run ends with exit(), and taking apart a plan of 10,000
// services on the way out costs time for nothing.
DesiredRun& run_record = *new DesiredRun;
struct event* timer = nullptr;  // the one time-out, re-armed for each request

void timer_fired(evutil_socket_t, short, void*) {
    without_running_out(desired_timed_out);
}

[[noreturn]] void out_of_memory() {
    finish(Outcome::fail(Failure::internal, OUT_OF_MEMORY));
}

// The get_tenants answer as the plan reads it. An element that is not a
// service object with a name makes the answer unreadable, as for --json -l.
// The views are copied into the few short strings the plan keeps.
bool read_agent_services(const JsonValue* data, std::vector<AgentService>* services) {
    bool readable = true;
    bool exhausted = false;
    TenantsRead read =
        read_tenant_views(data, [&](TenantElement element, const TenantView& tenant) {
            if (element != TenantElement::tenant || !tenant.name) {
                readable = false;
                return TenantWalk::stop;
            }
            try {
                services->push_back(
                    AgentService{.name = std::string(*tenant.name),
                                 .status = std::string(tenant.status.value_or("")),
                                 .ip_address = std::string(tenant.ip_address.value_or("")),
                                 .port = tenant.port,
                                 .virtual_port = tenant.virtual_port});
            } catch (const std::bad_alloc&) {
                exhausted = true;
                return TenantWalk::stop;
            }
            return TenantWalk::next;
        });
    if (exhausted || read == TenantsRead::out_of_memory) {
        out_of_memory();
    }
    return readable && read == TenantsRead::walked;
}

// --export: the agent's state as a desired-state file (YAML), or in JSON
// {"state": {...}}.
[[noreturn]] void export_state() {
    const AgentSnapshot& agent = run_record.agent;
    std::string yaml = render_state_yaml(agent);
    std::string json = render_state_json(agent);
    if (yaml.empty() || json.empty()) {
        out_of_memory();
    }
    finish(Outcome::success(Message().say(yaml), JsonWriter().value("state", json)));
}

// --diff (and --apply --dry-run): the plan, status 4 when it changes
// something.
[[noreturn]] void show_plan() {
    Outcome outcome;
    outcome.plan = &run_record.plan;
    outcome.failure = run_record.plan.summary.pending() ? Failure::changes_pending : Failure::none;
    finish(outcome);
}

// All was read: export, show the plan, or carry it out.
void planned() {
    const Invocation& in = *run_record.invocation;
    if (in.command == CommandId::export_state) {
        export_state();
    }
    const bool shown_only = in.command == CommandId::diff || in.dry_run;
    run_record.plan =
        make_plan(run_record.desired, run_record.agent, in.prune, in.json || !shown_only);
    if (shown_only) {
        show_plan();
    }
    start_apply();
}

}  // namespace

DesiredRun& desired_run() {
    return run_record;
}

void arm_desired_timeout(int64_t seconds) {
    if (timer == nullptr) {
        timer = event_new(Session.event_base(), -1, 0, timer_fired, nullptr);
    }
    const timeval delay = {static_cast<time_t>(seconds), 0};
    if (timer == nullptr || event_add(timer, &delay) != 0) {
        out_of_memory();
    }
}

// The whole file is read and checked here, before anything connects; the
// time-out then covers connecting and the first answer.
void* prepare_desired(const Invocation& in) {
    run_record.invocation = &in;
    std::string error;
    if (in.desired_file != nullptr &&
        !read_desired_state_file(in.desired_file, &run_record.desired, &error)) {
        finish(Outcome::fail(Failure::bad_argument, Message().quote(error).say("\n")));
    }
    // The agent mostly lists what the file names. Reserved room it does not
    // fill is never touched, so costs no page; growing would copy the lot.
    const size_t named = run_record.desired.services.size();
    try {
        run_record.agent.services.reserve(named + named / 2 + 16);
    } catch (const std::bad_alloc&) {
        out_of_memory();
    }
    arm_desired_timeout(running().row->timeout_seconds);
    return nullptr;
}

void desired_listing_answer(JsonValue* data) {
    if (!read_agent_services(data, &run_record.agent.services)) {
        finish(Outcome::fail(Failure::bad_answer, BAD_LISTING));
    }
    const Invocation& in = *run_record.invocation;
    if (in.command == CommandId::export_state || run_record.desired.proxy) {
        arm_desired_timeout(running().row->timeout_seconds);
        Session.send("get_proxy", build_empty_request, nullptr, guarded<desired_proxy_answer>);
        return;
    }
    planned();
}

void desired_proxy_answer(JsonValue* data) {
    ProxySettings proxy;
    if (const char* unreadable = read_proxy_settings(data, &proxy)) {
        finish(Outcome::fail(Failure::bad_answer, unreadable));
    }
    run_record.agent.proxy = AgentProxy{.type = proxy.type,
                                        .ip_address = proxy.ip_address,
                                        .port = proxy.port,
                                        .enabled = proxy.enabled};
    planned();
}

void desired_event(JsonValue* data) {
    if (applying()) {
        apply_event(data);
    }
}

void desired_timed_out() {
    if (applying()) {
        apply_stopped(true);
        return;
    }
    agent_silent_in_time();
}

void desired_hung_up() {
    if (applying()) {
        apply_stopped(false);
        return;
    }
    finish(Outcome::fail(Session.connected() ? Failure::bad_answer : Failure::unreachable,
                         ENDED_EARLY));
}
