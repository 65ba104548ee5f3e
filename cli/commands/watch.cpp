// --events: follows the service events and prints each state change until
// interrupted (SIGINT, SIGTERM), until --wait runs out, until the agent goes
// away, or until standard output's reader has gone.

#include <event2/event.h>

#include <csignal>

#include "cli/agent/session.h"
#include "cli/agent/tenants.h"
#include "cli/commands/families.h"
#include "cli/commands/run.h"

namespace {

// How long a close frame may take to leave before the tool ends anyway.
constexpr int CLOSE_POLLS = 100;
constexpr timeval CLOSE_POLL_INTERVAL = {0, 10000};
constexpr timeval WATCHDOG_INTERVAL = {1, 0};
// A reader of standard output that has gone is noticed this soon, though
// nothing is written.
constexpr timeval OUTPUT_CHECK_INTERVAL = {0, 250000};

constexpr const char* AGENT_GONE = "Transfer Agent closed the connection.\n";
constexpr const char* CONNECTION_LOST = "The connection to the Transfer Agent was lost.\n";

// The polite end under way: a close frame queued, waiting for it to leave.
struct Closing {
    struct event* poll;
    int polls_left;
};

Closing closing{};

// The watch is over: status 0 ({"ok": true, "state": "stopped"} in JSON).
[[noreturn]] void end_watch() {
    finish(Outcome::success({}, JsonWriter().text("state", "stopped")));
}

void poll_close(evutil_socket_t, short, void*) {
    if (Session.all_sent() || --closing.polls_left <= 0) {
        without_running_out(end_watch);
    }
}

// Queues a close frame (status 1000), then waits for it to leave.
void close_politely() {
    if (closing.poll != nullptr) {
        return;  // a second signal while closing
    }
    if (Session.send_close_frame() != 0) {
        end_watch();
    }
    closing.polls_left = CLOSE_POLLS;
    closing.poll = event_new(Session.event_base(), -1, EV_PERSIST, poll_close, nullptr);
    if (closing.poll == nullptr || event_add(closing.poll, &CLOSE_POLL_INTERVAL) != 0) {
        end_watch();
    }
}

void signal_callback(evutil_socket_t, short, void*) {
    without_running_out(close_politely);
}

// A connection closed without any event (a refused handshake, say).
void watchdog_callback(evutil_socket_t, short, void*) {
    if (Session.connected() && Session.closed_for_good()) {
        without_running_out([] { finish(Outcome::fail(Failure::unreachable, CONNECTION_LOST)); });
    }
}

void output_check_callback(evutil_socket_t, short, void*) {
    end_if_output_gone();
}

// The events live until the process ends.
void add_persistent(event_callback_fn callback, const timeval* interval, const char* failure) {
    struct event* watch = event_new(Session.event_base(), -1, EV_PERSIST, callback, nullptr);
    if (watch == nullptr || event_add(watch, interval) != 0) {
        finish(Outcome::fail(Failure::internal, failure));
    }
}

}  // namespace

// SIGINT and SIGTERM are taken from the loop, so the close frame goes out
// from there.
void watch_signals_and_connection() {
    for (int signal_number : {SIGINT, SIGTERM}) {
        struct event* caught =
            evsignal_new(Session.event_base(), signal_number, signal_callback, nullptr);
        if (caught == nullptr || evsignal_add(caught, nullptr) != 0) {
            finish(Outcome::fail(Failure::internal, "Unable to watch for interruptions.\n"));
        }
    }
    add_persistent(watchdog_callback, &WATCHDOG_INTERVAL, "Unable to watch the connection.\n");
    add_persistent(output_check_callback, &OUTPUT_CHECK_INTERVAL,
                   "Unable to watch the connection.\n");
}

// One progress step per service named with its status; other elements are
// skipped: one bad element must not end a watch.
void watch_event(JsonValue* data) {
    TenantsRead read = read_tenants(data, [](TenantElement element, const Tenant& tenant) {
        if (element == TenantElement::tenant && tenant.name && tenant.status) {
            Progress step;
            step.event = &tenant;
            report(step);
        }
        return TenantWalk::next;
    });
    if (read == TenantsRead::out_of_memory) {
        finish(Outcome::fail(Failure::internal, OUT_OF_MEMORY));
    }
}

// --wait ran out: a polite end, unless the agent was never reached.
void watch_time_over() {
    if (!Session.connected()) {
        end_unreachable();
    }
    close_politely();
}

// The agent answering our close frame by closing is the polite end.
void watch_hung_up() {
    if (closing.poll != nullptr) {
        end_watch();
    }
    finish(Outcome::fail(Failure::unreachable, AGENT_GONE));
}

// The subscription keeps the conversation open: only a hook ends it.
void watch_over() {
    finish(Outcome::fail(Failure::unreachable, AGENT_GONE));
}
