// --metrics and --metrics-file: one connection attempt, get_tenants then
// get_proxy, and the agent's state in Prometheus's text format, on standard
// output or written atomically for node_exporter's textfile collector. When
// the agent does not answer, the text still says sylvane_agent_up 0 (so an
// alert fires rather than the last good values staying) and the run ends
// with status 3.

#include <ctime>

#include "cli/agent/session.h"
#include "cli/agent/tenants.h"
#include "cli/commands/families.h"
#include "cli/commands/requests.h"
#include "cli/commands/run.h"
#include "cli/observe/metrics.h"

#ifndef SYLV_TOOL_VERSION
#error "SYLV_TOOL_VERSION must come from the build"
#endif

namespace {

constexpr const char* NOTHING_LISTENING = "Nothing is listening on 127.0.0.1:11038";
constexpr const char* NO_ANSWER_IN_TIME = "Transfer Agent did not answer within 4 seconds";
constexpr const char* NOT_AN_AGENT =
    "The program listening on 127.0.0.1:11038 is not a Transfer Agent";
constexpr const char* AGENT_BUSY = "Transfer Agent is serving another client";
// The agent did not answer, whatever the reason; the tool's own failures (a
// file that cannot be written) keep the failure table's status.
constexpr int AGENT_DOWN_STATUS = 3;

// What this run saw, filled as the answers come; the clock starts before the
// connection.
// What the run saw, made at first use: as a global it would register its
// destructor at every start of the tool.
MetricsSnapshot& seen() {
    static MetricsSnapshot made;
    return made;
}
timespec started{};

double elapsed_seconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec - started.tv_sec) +
           static_cast<double>(now.tv_nsec - started.tv_nsec) / 1e9;
}

// The text for `snapshot`; running out of memory ends the run as such.
std::string rendered(const MetricsSnapshot& snapshot) {
    std::string text = render_metrics(snapshot);
    if (text.empty()) {
        throw std::bad_alloc();
    }
    return text;
}

// --metrics-file: writes `text`, or ends the run with the reason it could not.
void write_or_fail(const std::string& text) {
    const char* path = running().invocation->metrics_file;
    char error[512];
    if (write_metrics_file(path, text, error, sizeof error) != 0) {
        finish(Outcome::fail(Failure::internal, Message().quote(error).say(".\n"),
                             JsonWriter().text("file", path)));
    }
}

// Both answers were read: the full text, printed or written.
[[noreturn]] void deliver_answered() {
    seen().agent_up = true;
    seen().response_seconds = elapsed_seconds();
    const std::string text = rendered(seen());
    const bool to_file = running().invocation->command == CommandId::metrics_file;
    if (!to_file) {
        finish(Outcome::success(Message().say(text)));
    }
    write_or_fail(text);
    finish(Outcome::success({},
                            JsonWriter()
                                .text("file", running().invocation->metrics_file)
                                .boolean("agent_up", true)
                                .number("services", static_cast<int64_t>(seen().services.size()))));
}

// The agent did not answer usably: sylvane_agent_up 0 all the same, then the
// failure. Nothing partial is written: a half-read state would look current.
[[noreturn]] void deliver_down(Failure failure, const char* why) {
    MetricsSnapshot down;
    down.version = seen().version;
    const std::string text = rendered(down);
    const char* path = running().invocation->metrics_file;
    if (running().invocation->command == CommandId::metrics) {
        Outcome outcome = Outcome::fail(failure, Message().say(why).say(".\n"));
        outcome.human = HumanException{Message().say(text), outcome.text, AGENT_DOWN_STATUS};
        finish(outcome);
    }
    write_or_fail(text);
    Outcome outcome = Outcome::fail(
        failure, Message().say(why).say(": wrote sylvane_agent_up 0 to ").quote(path).say(".\n"),
        JsonWriter().text("file", path).boolean("agent_up", false));
    outcome.human = HumanException{{}, outcome.text, AGENT_DOWN_STATUS};
    finish(outcome);
}

}  // namespace

void* start_metrics(const Invocation& in) {
    if (in.command == CommandId::metrics_file && in.metrics_file[0] == '\0') {
        finish(Outcome::fail(Failure::bad_argument, "--metrics-file needs a file name.\n"));
    }
    seen().version = SYLV_TOOL_VERSION;
    clock_gettime(CLOCK_MONOTONIC, &started);
    return nullptr;
}

// The listing: each readable service; elements that are not (not strings,
// not JSON) are left out, as the watch leaves them out.
void metrics_tenants_answer(JsonValue* data) {
    const TenantsRead read = read_tenants(data, [](TenantElement element, const Tenant& tenant) {
        if (element == TenantElement::tenant && tenant.name) {
            seen().services.push_back({*tenant.name, tenant.uuid.value_or(""),
                                       tenant.status.value_or(""),
                                       tenant.onion_address.value_or("")});
        }
        return TenantWalk::next;
    });
    if (read == TenantsRead::out_of_memory) {
        throw std::bad_alloc();
    }
    if (read == TenantsRead::missing) {
        deliver_down(Failure::not_an_agent, NOT_AN_AGENT);
    }
    seen().services_known = true;
    Session.send("get_proxy", build_empty_request, nullptr, guarded<metrics_proxy_answer>);
}

void metrics_proxy_answer(JsonValue* data) {
    ProxySettings proxy;
    if (read_proxy_settings(data, &proxy) != nullptr) {
        deliver_down(Failure::not_an_agent, NOT_AN_AGENT);
    }
    seen().proxy_known = true;
    seen().proxy = {proxy.ip_address + ":" + std::to_string(proxy.port), proxy.type, proxy.enabled};
    deliver_answered();
}

// No verdict from an answer: nothing connected, a connection that closed
// (not the agent's protocol), or one still silent.
void metrics_failed() {
    without_running_out([] {
        if (!Session.connected()) {
            deliver_down(Failure::unreachable, NOTHING_LISTENING);
        }
        if (Session.closed_for_good()) {
            deliver_down(Failure::not_an_agent, NOT_AN_AGENT);
        }
        deliver_down(Failure::timeout, NO_ANSWER_IN_TIME);
    });
}

void metrics_busy() {
    without_running_out([] { deliver_down(Failure::busy, AGENT_BUSY); });
}

// The answers did not match the requests.
void metrics_over() {
    without_running_out([] { deliver_down(Failure::not_an_agent, NOT_AN_AGENT); });
}
