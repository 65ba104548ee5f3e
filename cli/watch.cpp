#include "cli/watch.h"

#include <event2/event.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "cli/commands.h"
#include "cli/json_responses.h"
#include "cli/report.h"
#include "cli/run_state.h"
#include "cli/startup.h"
#include "cli/tenants.h"
#include "ipc/ipc_client.h"
#include "websocket/websocket.h"

namespace {

constexpr int HUMAN_WATCH_FAILURE = 3;
constexpr int64_t CHECK_SECONDS = 2;
constexpr int32_t SINGLE_ATTEMPT = -1;
// How long a close frame may take to leave before the tool exits anyway.
constexpr int CLOSE_POLLS = 100;
constexpr timeval CLOSE_POLL_INTERVAL = {0, 10000};
constexpr uint8_t CLOSE_NORMAL[] = {0x03, 0xe8};  // status 1000

constexpr const char* AGENT_GONE = "Transfer Agent closed the connection.\n";
constexpr const char* CONNECTION_LOST = "The connection to the Transfer Agent was lost.\n";
constexpr timeval WATCHDOG_INTERVAL = {1, 0};
constexpr const char* NOTHING_LISTENING = "Nothing is listening on 127.0.0.1:11038.\n";
constexpr const char* NO_ANSWER = "Transfer Agent did not answer within 2 seconds.\n";
constexpr const char* NOT_AN_AGENT =
    "The program listening on 127.0.0.1:11038 is not a Transfer Agent.\n";

struct Closing {
    struct event* poll;
    int polls_left;
};

Closing closing{};

// Closed with no attempt under way or scheduled: a refused handshake ends
// like this, without any event.
bool closed_for_good(const networkConnection* connection) {
    return connection->read_event == nullptr && connection->write_event == nullptr &&
           connection->retry_event == nullptr;
}

// ---- --events ----------------------------------------------------------------

// "web: connected (synchronized)", "db: error: <reason>", "web: in progress".
void print_event_line(const char* name, const char* status, const char* synchronized,
                      const char* reason, const char* onion_address) {
    if (json_mode()) {
        JsonWriter fields;
        fields.text("service", name).text("status", status);
        if (synchronized != nullptr) {
            fields.boolean("synchronized", strcmp(synchronized, "true") == 0);
        }
        fields.text("reason", reason).text("onion_address", onion_address);
        emit(fields);
        return;
    }
    printf("%s: %s", name, status);
    if (reason != nullptr && reason[0] != '\0') {
        printf(": %s", reason);
    }
    if (synchronized != nullptr) {
        fputs(strcmp(synchronized, "true") == 0 ? " (synchronized)" : " (not synchronized)",
              stdout);
    }
    putchar('\n');
    fflush(stdout);
}

// An element the tool cannot read is skipped: one bad element must not end
// a watch.
void print_tenant_event(const JsonListItem* item) {
    JsonValue* tenant = parse_tenant(item);
    if (tenant == nullptr) {
        return;
    }
    char name[NAME_SIZE] = {};
    char status[STATUS_SIZE] = {};
    char synchronized[SYNCHRONIZED_SIZE] = {};
    char reason[REASON_SIZE] = {};
    char onion_address[ONION_ADDRESS_SIZE] = {};
    if (json_get_string_value(tenant, "tenant_name", name, sizeof name) >= 0 &&
        json_get_string_value(tenant, "status", status, sizeof status) >= 0) {
        bool has_synchronized =
            json_get_string_value(tenant, "synchronized", synchronized, sizeof synchronized) >= 0 &&
            (strcmp(synchronized, "true") == 0 || strcmp(synchronized, "false") == 0);
        bool has_reason = json_get_string_value(tenant, "reason", reason, sizeof reason) >= 0;
        bool has_onion = json_get_string_value(tenant, "onion_address", onion_address,
                                               sizeof onion_address) >= 0;
        print_event_line(name, status, has_synchronized ? synchronized : nullptr,
                         has_reason ? reason : nullptr, has_onion ? onion_address : nullptr);
    }
    json_free_value(tenant);
}

// The watch is over: status 0 (a final object in JSON mode).
[[noreturn]] void end_watch() {
    report_success(nullptr, JsonWriter().text("state", "stopped"));
    exit(0);
}

// Exits once the close frame has left (or after about a second).
void poll_close(evutil_socket_t, short, void*) {
    networkConnection* connection = run_state().connection;
    bool sent = connection == nullptr || connection->sending_queue == nullptr ||
                DynamicBuffer.size(connection->sending_queue) == 0;
    if (sent || --closing.polls_left <= 0) {
        end_watch();
    }
}

// Queues a close frame (status 1000), then waits for it to leave.
void close_politely() {
    if (closing.poll != nullptr) {
        return;  // a second signal while closing
    }
    networkConnection* connection = run_state().connection;
    uint64_t length = 0;
    uint8_t* frame = websocket_build_frame(CLOSE_NORMAL, sizeof CLOSE_NORMAL, WS_OPCODE_CLOSE, true,
                                           true, &length);
    if (connection == nullptr || frame == nullptr || Network.send(connection, frame, length) != 0) {
        free(frame);
        end_watch();
    }
    free(frame);
    closing.polls_left = CLOSE_POLLS;
    closing.poll = event_new(Network.get_event_base(), -1, EV_PERSIST, poll_close, nullptr);
    event_add(closing.poll, &CLOSE_POLL_INTERVAL);
}

void signal_callback(evutil_socket_t, short, void*) {
    close_politely();
}

// --wait ran out: a polite end, unless the agent was never reached.
void wait_over_callback(evutil_socket_t, short, void*) {
    if (!run_state().connected) {
        fail(Failure::unreachable, UNREACHABLE_MESSAGE);
    }
    close_politely();
}

// The agent answering our close frame by closing is the polite end.
void agent_gone_callback(uint32_t, void*) {
    if (closing.poll != nullptr) {
        end_watch();
    }
    fail(Failure::unreachable, AGENT_GONE);
}

void watchdog_callback(evutil_socket_t, short, void*) {
    const networkConnection* connection = run_state().connection;
    if (connection != nullptr && closed_for_good(connection)) {
        fail(Failure::unreachable, CONNECTION_LOST);
    }
}

// SIGINT and SIGTERM are taken from the loop, so the close frame goes out
// from there; a watchdog notices a connection closed without any event. The
// events live until the process ends.
void watch_signals_and_connection() {
    struct event_base* base = Network.get_event_base();
    for (int signal_number : {SIGINT, SIGTERM}) {
        struct event* caught = evsignal_new(base, signal_number, signal_callback, nullptr);
        if (caught == nullptr || evsignal_add(caught, nullptr) != 0) {
            fail(Failure::internal, "Unable to watch for interruptions.\n");
        }
    }
    struct event* watchdog = event_new(base, -1, EV_PERSIST, watchdog_callback, nullptr);
    if (watchdog == nullptr || event_add(watchdog, &WATCHDOG_INTERVAL) != 0) {
        fail(Failure::internal, "Unable to watch the connection.\n");
    }
}

// ---- --check -------------------------------------------------------------------

// When the check began: its latency runs from before the connection to the
// answer.
timespec check_started{};

double elapsed_ms() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec - check_started.tv_sec) * 1000.0 +
           static_cast<double>(now.tv_nsec - check_started.tv_nsec) / 1e6;
}

// The get_proxy answer: well formed, the agent is there (status 0).
char* check_response(JsonValue* data) {
    ProxyAnswer proxy{};
    if (read_proxy_answer(data, &proxy) != nullptr) {
        fail(Failure::not_an_agent, NOT_AN_AGENT);
    }
    const double latency = elapsed_ms();
    if (json_mode()) {
        report_success(nullptr, JsonWriter().decimal("latency_ms", latency));
    } else {
        printf("Transfer Agent is answering on 127.0.0.1:11038 (%.1f ms).\n", latency);
    }
    exit(0);
}

// The verdict without an answer: nothing connected (nothing listening), a
// connection closed after it was made (the handshake was refused or the peer
// hung up: not a Transfer Agent), or one still open and silent (no answer).
[[noreturn]] void check_failed() {
    const RunState& state = run_state();
    if (!state.connected) {
        fail(Failure::unreachable, NOTHING_LISTENING);
    }
    if (state.connection == nullptr || closed_for_good(state.connection)) {
        fail(Failure::not_an_agent, NOT_AN_AGENT);
    }
    fail(Failure::timeout, NO_ANSWER);
}

void check_timeout_callback(evutil_socket_t, short, void*) {
    check_failed();
}

void check_connection_failed(uint32_t, void*) {
    check_failed();
}

}  // namespace

char* print_service_events(JsonValue* data) {
    if (data == nullptr) {
        return nullptr;
    }
    TenantList list{};
    if (!read_tenant_list(data, &list)) {
        return nullptr;  // nothing to show; the watch goes on
    }
    for (int i = 0; i < list.count; i++) {
        print_tenant_event(list.items[i]);
    }
    release_tenant_list(&list);
    return nullptr;
}

void watch_events() {
    RunState& state = run_state();
    state.human_failure_status = HUMAN_WATCH_FAILURE;
    state.stop_when_unreachable = true;
    IpcClientConfig* config = start_transfer_agent_client();
    CallbackEvent.subscribe(state.dispatcher, IPC_EVENT_DISCONNECTED, agent_gone_callback);
    List* subscriptions = create_subscription_list(print_service_events);
    if (state.wait_seconds > 0) {
        state.timeout_seconds = state.wait_seconds;
        IpcConfig.set_timeout(config, Network.get_event_base(), wait_over_callback, nullptr,
                              state.wait_seconds);
    }
    watch_signals_and_connection();
    add_subscription_list(config, subscriptions);
    run_ipc_client(config);
    // The subscription keeps the conversation open: only a callback ends it.
    fail(Failure::unreachable, AGENT_GONE);
}

void check_agent() {
    RunState& state = run_state();
    state.human_failure_status = HUMAN_WATCH_FAILURE;
    state.stop_when_unreachable = false;  // its own verdict below
    clock_gettime(CLOCK_MONOTONIC, &check_started);
    IpcClientConfig* config = start_transfer_agent_client(SINGLE_ATTEMPT);
    CallbackEvent.subscribe(state.dispatcher, NET_EVENT_CONNECTION_FAILED, check_connection_failed);
    state.timeout_seconds = CHECK_SECONDS;
    IpcConfig.set_timeout(config, Network.get_event_base(), check_timeout_callback, nullptr,
                          CHECK_SECONDS);
    IpcConfig.add_command(config, "get_proxy", build_empty_request, nullptr, check_response);
    run_ipc_client(config);
    // The answer did not match the request (wrong command or id).
    fail(Failure::not_an_agent, NOT_AN_AGENT);
}
