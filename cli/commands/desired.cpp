// The desired-state commands: --diff and --export, and the reading and
// planning the apply starts from. Each reads the file before connecting,
// then the agent's services (and its proxy when the file names one, or for
// an export) on one connection, and plans.

#include <event2/event.h>

#include <new>
#include <string>
#include <type_traits>

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

struct event* timer = nullptr;  // the one time-out, re-armed for each request

void timer_fired(evutil_socket_t, short, void*) {
    without_running_out(desired_timed_out);
}

[[noreturn]] void out_of_memory() {
    finish(Outcome::fail(Failure::internal, OUT_OF_MEMORY));
}

// Shows each service of the get_tenants answer to `take` as the listing's
// views, in order. An element that is not a service object with a name
// makes the answer unreadable, as for --json -l: false then.
template <typename Take>
bool walk_agent_services(const JsonValue* data, Take take) {
    bool readable = true;
    bool exhausted = false;
    TenantsRead read =
        read_service_views(data, [&](TenantElement element, const ServiceView& service) {
            if (element != TenantElement::tenant || !service.name) {
                readable = false;
                return TenantWalk::stop;
            }
            try {
                take(ListedService{.name = *service.name,
                                   .status = service.status,
                                   .ip_address = service.ip_address,
                                   .port = service.port,
                                   .virtual_port = service.virtual_port});
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

// The listing read for the plan: each service planned as it is shown, the
// answer kept no longer than this call. --json and the apply need every
// unchanged service in full; the human text of a plan only its name.
bool plan_listing(const JsonValue* data) {
    const Invocation& in = *desired_run().invocation;
    const bool shown_only = in.command == CommandId::diff || in.dry_run;
    Planner& planner =
        desired_run().planner.emplace(desired_run().desired, in.prune, in.json || !shown_only);
    return walk_agent_services(data,
                               [&planner](const ListedService& service) { planner.list(service); });
}

// The listing read for an export: the services copied whole, as it writes
// them after the proxy's answer.
bool copy_listing(const JsonValue* data) {
    std::vector<AgentService>& services = desired_run().agent.services;
    return walk_agent_services(data, [&services](const ListedService& service) {
        services.push_back(AgentService{.name = std::string(service.name),
                                        .status = std::string(service.status),
                                        .ip_address = std::string(service.ip_address),
                                        .port = service.port,
                                        .virtual_port = service.virtual_port});
    });
}

// --export: the agent's state as a desired-state file (YAML), or in JSON
// {"state": {...}}.
[[noreturn]] void export_state() {
    const AgentSnapshot& agent = desired_run().agent;
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
    outcome.plan = &desired_run().plan;
    outcome.failure =
        desired_run().plan.summary.pending() ? Failure::changes_pending : Failure::none;
    finish(outcome);
}

// All was read: export, show the plan, or carry it out.
void planned() {
    const Invocation& in = *desired_run().invocation;
    if (in.command == CommandId::export_state) {
        export_state();
    }
    desired_run().plan = desired_run().planner->finish(desired_run().agent.proxy);
    if (in.command == CommandId::diff || in.dry_run) {
        show_plan();
    }
    start_apply();
}

}  // namespace

DesiredRun& desired_run() {
    // Made at first use, so other commands do not pay for it, in storage of
    // its own: making it cannot fail, and it is never destroyed, since the
    // run ends with exit() and taking apart a plan of 10,000 services on the
    // way out costs time for nothing.
    static_assert(std::is_nothrow_default_constructible_v<DesiredRun>);
    alignas(DesiredRun) static unsigned char storage[sizeof(DesiredRun)];
    static DesiredRun* const record = new (storage) DesiredRun;
    return *record;
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
    desired_run().invocation = &in;
    std::string error;
    if (in.desired_file != nullptr &&
        !read_desired_state_file(in.desired_file, &desired_run().desired, &error)) {
        finish(Outcome::fail(Failure::bad_argument, Message().quote(error).say("\n")));
    }
    arm_desired_timeout(running().row->timeout_seconds);
    return nullptr;
}

void desired_listing_answer(JsonValue* data) {
    const Invocation& in = *desired_run().invocation;
    const bool exporting = in.command == CommandId::export_state;
    if (!(exporting ? copy_listing(data) : plan_listing(data))) {
        finish(Outcome::fail(Failure::bad_answer, BAD_LISTING));
    }
    if (exporting || desired_run().desired.proxy) {
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
    desired_run().agent.proxy = AgentProxy{.type = proxy.type,
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
