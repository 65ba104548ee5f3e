// Start-up shared by every command: the network module, the event
// dispatcher, the IPC configuration towards the Transfer Agent, the busy
// notice, the time-out callbacks and the run of the event loop.
#pragma once

#include <event2/event.h>

#include <cstdint>
#include <cstdio>

#include "core/callback_event.h"
#include "ipc/ipc_config.h"

// Where the Transfer Agent listens, and how the connection is retried.
constexpr const char* TRANSFER_AGENT_IP = "127.0.0.1";
constexpr uint16_t TRANSFER_AGENT_PORT = 11038;
constexpr int32_t TRANSFER_AGENT_RECONNECTION_POLICY = 3;
constexpr int32_t TRANSFER_AGENT_RETRY_DELAY = 3;

// Every connection attempt failed (--json, --events, --check).
constexpr const char* UNREACHABLE_MESSAGE =
    "Could not connect to the Transfer Agent on 127.0.0.1:11038.\n";

// Network module, dispatcher, IPC config, busy notice, connection tracking.
// Ends the run ("internal") when the dispatcher or the config cannot be
// created.
IpcClientConfig* start_transfer_agent_client();
// The same with another reconnection policy (--check tries once).
IpcClientConfig* start_transfer_agent_client(int32_t reconnection_policy);

// Instantiates the IPC client on `config`, schedules the connection and runs
// the loop until it has no more work. Returns event_base_dispatch's result.
int run_ipc_client(IpcClientConfig* config);

// Frees the config (with its subscription records) and the dispatcher once
// the loop has returned.
void stop_transfer_agent_client(IpcClientConfig* config);

// Subscriber of IPC_EVENT_PLEASE_DISCONNECT: another client is being served.
// Ends the run as a "busy" failure (report.h).
void busy_callback(uint32_t event_id, void* data);

// Time-outs of get_tenants and remove_tenant. They end the run as a failure
// (report.h): "timeout", or "unreachable" when no connection was ever made.
void timeout_callback(evutil_socket_t fd, short flags, void* argument);
// Time-out of the other single-answer commands, which also suggests checking
// that the Sylvane Network process runs; ends the run the same way.
void agent_timeout_callback(evutil_socket_t fd, short flags, void* argument);

// Writes `text` whole to `stream`, then ends the process with `status`.
[[noreturn]] void finish(FILE* stream, const char* text, int status);
