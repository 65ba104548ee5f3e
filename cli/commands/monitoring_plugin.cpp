// check_sylvane's run: one connection attempt, get_tenants, the verdict of
// cli/observe/plugin.h on what happened. The time-out (-t, in seconds with
// decimals) is a timer of its own on the session's loop.

#include "cli/commands/monitoring_plugin.h"

#include <event2/event.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <new>

#include "cli/agent/session.h"
#include "cli/agent/tenants.h"
#include "cli/commands/requests.h"
#include "cli/observe/plugin.h"
#include "cli/observe/trace.h"
#include "cli/output/output.h"

#ifndef SYLV_TOOL_VERSION
#error "SYLV_TOOL_VERSION must come from the build"
#endif

namespace {

constexpr const char* PLUGIN_HELP =
    "check_sylvane: is the Sylvane Transfer Agent on 127.0.0.1:11038 answering, and are the\n"
    "named services enabled?\n"
    "\n"
    "Usage: check_sylvane [-w SECONDS] [-c SECONDS] [-t SECONDS] [--service NAME]... [-v]\n"
    "\n"
    " -w, --warning=RANGE    WARNING when the response time (seconds) is outside RANGE\n"
    " -c, --critical=RANGE   CRITICAL when the response time (seconds) is outside RANGE\n"
    " -t, --timeout=SECONDS  give up after SECONDS (default 10): CRITICAL\n"
    "     --service=NAME     CRITICAL unless NAME is connected (WARNING while enabling);\n"
    "                        repeatable\n"
    " -v, --verbose          trace the conversation on standard error (twice: every step)\n"
    " -h, --help             this text\n"
    " -V, --version          the version\n"
    "\n"
    "RANGE as the Monitoring Plugins take it: 10 (0 to 10), 10: (10 and above), ~:10,\n"
    "10:20, @10:20 (alert inside). Exit status: 0 OK, 1 WARNING, 2 CRITICAL, 3 UNKNOWN\n"
    "(also after --help and --version, as the Monitoring Plugins do).\n";

// The run's arguments and what it saw, made at first use: as globals they
// would register their destructors at every start of the tool.
PluginArguments& arguments() {
    static PluginArguments made;
    return made;
}

PluginObservation& observation() {
    static PluginObservation made;
    return made;
}
timespec started{};
struct event* deadline = nullptr;

double elapsed_seconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec - started.tv_sec) +
           static_cast<double>(now.tv_nsec - started.tv_nsec) / 1e9;
}

// Writes `line` and a newline on standard output and ends the run with
// `state`; a line that cannot be written leaves the monitor nothing but
// UNKNOWN.
[[noreturn]] void say(const std::string& line, int state) {
    const bool written = fwrite(line.data(), 1, line.size(), stdout) == line.size() &&
                         fputc('\n', stdout) != EOF && fflush(stdout) == 0;
    end_run(written ? state : PLUGIN_UNKNOWN);
}

[[noreturn]] void conclude(AgentContact contact) {
    observation().contact = contact;
    const PluginVerdict verdict = plugin_verdict(arguments(), observation());
    say(verdict.line, verdict.state);
}

[[noreturn]] void out_of_memory() {
    say("SYLVANE UNKNOWN - out of memory", PLUGIN_UNKNOWN);
}

// No answer: nothing connected, a connection closed without one (not the
// agent's protocol), or one still open and silent.
[[noreturn]] void conclude_unanswered() {
    if (!Session.connected()) {
        conclude(AgentContact::refused);
    }
    conclude(Session.closed_for_good() ? AgentContact::malformed : AgentContact::silent);
}

// The get_tenants answer: the services it lists (elements that cannot be
// read left out), and the time from the connection attempt to it.
void on_listing(JsonValue* data) {
    try {
        const double seconds = elapsed_seconds();
        const TenantsRead read =
            read_tenants(data, [](TenantElement element, const Tenant& tenant) {
                if (element == TenantElement::tenant && tenant.name) {
                    observation().services.push_back({*tenant.name, tenant.status.value_or("")});
                }
                return TenantWalk::next;
            });
        if (read == TenantsRead::out_of_memory) {
            out_of_memory();
        }
        if (read == TenantsRead::missing) {
            conclude(AgentContact::malformed);
        }
        observation().response_seconds = seconds;
        conclude(AgentContact::answered);
    } catch (const std::bad_alloc&) {
        out_of_memory();
    }
}

// The session's hooks and the -t timer: each ends the run with its verdict.
void on_deadline(evutil_socket_t, short, void*) {
    conclude_unanswered();
}

void on_busy() {
    conclude(AgentContact::busy);
}

void on_gave_up() {
    conclude(AgentContact::refused);
}

// A message came that did not answer the request (a mismatched one).
void on_hung_up() {
    conclude(AgentContact::malformed);
}

// The -t timer on the session's loop, armed before the connection.
bool arm_deadline(double seconds) {
    deadline = evtimer_new(Session.event_base(), on_deadline, nullptr);
    double whole = 0;
    const double fraction = modf(seconds, &whole);
    const timeval delay = {static_cast<time_t>(whole), static_cast<suseconds_t>(fraction * 1e6)};
    return deadline != nullptr && evtimer_add(deadline, &delay) == 0;
}

[[noreturn]] void converse() {
    static const SessionHooks hooks = {
        .timed_out = nullptr,
        .busy = on_busy,
        .gave_up = on_gave_up,
        .too_large = nullptr,  // the connection drops; the time-out tells
        .hung_up = on_hung_up,
    };
    if (Session.start(SINGLE_ATTEMPT, &hooks) != SESSION_OK ||
        !arm_deadline(arguments().timeout_seconds)) {
        say("SYLVANE UNKNOWN - could not start: out of memory", PLUGIN_UNKNOWN);
    }
    clock_gettime(CLOCK_MONOTONIC, &started);
    Session.send("get_tenants", build_empty_request, nullptr, on_listing);
    Session.run();
    conclude_unanswered();  // the loop ran dry: the client could not be made
}

}  // namespace

bool is_monitoring_plugin(const char* program) {
    if (program == nullptr) {
        return false;
    }
    const char* slash = strrchr(program, '/');
    return strcmp(slash == nullptr ? program : slash + 1, PLUGIN_NAME) == 0;
}

void run_monitoring_plugin(int argc, char** argv) {
    std::string error;
    if (parse_plugin_arguments(argc, argv, &arguments(), &error) != 0) {
        say(error.empty() ? "SYLVANE UNKNOWN - out of memory" : plugin_usage_line(error),
            PLUGIN_UNKNOWN);
    }
    if (arguments().help) {
        say(std::string(PLUGIN_HELP, strlen(PLUGIN_HELP) - 1), PLUGIN_UNKNOWN);
    }
    if (arguments().version) {
        say(std::string(PLUGIN_NAME) + " (sylvane-service " SYLV_TOOL_VERSION ")", PLUGIN_UNKNOWN);
    }
    start_trace(arguments().verbosity);
    try {
        converse();
    } catch (const std::bad_alloc&) {
        out_of_memory();
    }
}
