#include "cli/startup.h"

#include <cstdio>
#include <cstdlib>

#include "cli/report.h"
#include "cli/run_state.h"
#include "ipc/ipc_client.h"
#include "network/network.h"
#include "websocket/websocket.h"

namespace {

constexpr const char* BUSY_MESSAGE =
    "Could not execute command because another program is executing operation with the "
    "Transfer Agent. You probably have a Graphic User interface or another client communicating "
    "with the Sylvane service. Please close the client then retry.\n";

// JSON mode tells a time-out from an agent that was never reached.
void connected_callback(uint32_t, void* connection) {
    run_state().connected = true;
    run_state().connection = static_cast<networkConnection*>(connection);
}

// Without a connection, a time-out means nothing could be reached.
Failure timeout_failure() {
    return run_state().connected ? Failure::timeout : Failure::unreachable;
}

// Every attempt failed: with --json, --events or --check the run ends now
// rather than at its time-out.
void unreachable_callback(uint32_t, void*) {
    fail(Failure::unreachable, UNREACHABLE_MESSAGE, about_service());
}

// libevent-shaped wrapper so the first attempt starts from the loop.
void connect_callback(evutil_socket_t, short, void* connection) {
    Network.perform_connection(static_cast<networkConnection*>(connection));
}

// The agent sent a message past the bound and the connection was dropped.
// Said at once, and once: a retry may bring the same message again. The
// command's time-out still ends the run (and, with --json, says it alone:
// standard error stays empty).
void too_large_callback(uint32_t, void*) {
    static bool said = false;
    if (!said && !json_mode()) {
        said = true;
        fputs("Transfer Agent message larger than 16 MiB: connection dropped.\n", stderr);
    }
}

}  // namespace

void finish(FILE* stream, const char* text, int status) {
    fputs(text, stream);
    exit(status);
}

// The init result is not checked: a second init keeps the first base, and a
// base that could not be made fails the dispatcher creation just after.
IpcClientConfig* start_transfer_agent_client() {
    return start_transfer_agent_client(TRANSFER_AGENT_RECONNECTION_POLICY);
}

IpcClientConfig* start_transfer_agent_client(int32_t reconnection_policy) {
    Network.init();
    EventDispatcher* dispatcher =
        CallbackEvent.create(Network.get_event_base(), DISPATCHER_EVENT_COUNT);
    run_state().dispatcher = dispatcher;
    if (dispatcher == nullptr) {
        fail(Failure::internal, "Unable to create event dispatcher\n");
    }
    IpcClientConfig* config = IpcConfig.create_client_ipc_config(
        TRANSFER_AGENT_IP, TRANSFER_AGENT_PORT, reconnection_policy, TRANSFER_AGENT_RETRY_DELAY);
    if (config == nullptr) {
        fail(Failure::internal,
             "Unable to initiate connection to Transfer Agent server: memory allocation "
             "failure\n");
    }
    CallbackEvent.subscribe(dispatcher, IPC_EVENT_PLEASE_DISCONNECT, busy_callback);
    // The human interface needs neither (and keeps its allocations as they were).
    if (run_state().scripting) {
        CallbackEvent.subscribe(dispatcher, NET_EVENT_CONNECTED, connected_callback);
    }
    if (run_state().stop_when_unreachable) {
        CallbackEvent.subscribe(dispatcher, NET_EVENT_CONNECTION_FAILED, unreachable_callback);
    }
    CallbackEvent.subscribe(dispatcher, WS_EVENT_MESSAGE_TOO_LARGE, too_large_callback);
    return config;
}

// A client that cannot be instantiated is not scheduled; the command's
// time-out, armed before, then reports the failure. The loop runs dry only
// after the client has closed the connection, which is then released.
int run_ipc_client(IpcClientConfig* config) {
    struct event_base* base = Network.get_event_base();
    networkConnection* connection =
        IpcClient.instantiate_ipc_client(config, base, run_state().dispatcher);
    if (connection != nullptr) {
        CallbackEvent.register_callback(base, connect_callback, connection, 0);
    }
    int result = event_base_dispatch(base);
    Network.destroy_connection(connection);
    return result;
}

void stop_transfer_agent_client(IpcClientConfig* config) {
    IpcConfig.free_ipc_config(config);
    CallbackEvent.destroy(run_state().dispatcher);
    run_state().dispatcher = nullptr;
}

void busy_callback(uint32_t, void*) {
    fail(Failure::busy, BUSY_MESSAGE, about_service());
}

void timeout_callback(evutil_socket_t, short, void*) {
    fail(timeout_failure(),
         "Transfer Agent process did not respond in expected time. Please retry.\n",
         about_service());
}

void agent_timeout_callback(evutil_socket_t, short, void*) {
    fail(timeout_failure(),
         "Transfer Agent process did not respond in expected time. Please retry. Make sure the "
         "Sylvane Network process is currently running\n",
         about_service());
}
