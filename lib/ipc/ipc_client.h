// IpcClient: the client end of the JSON protocol spoken with the Transfer
// Agent over a WebSocket text channel.
//
// After the handshake it sends {"command": "connection", "id": 17} and at
// once the first queued request {"command", "id", "data"}; exactly one
// request is outstanding. Any message received while a command is pending
// consumes it (a malformed or mismatched one too). Events (no id, or a
// negative one) go to the subscription whose event_name matches and never
// advance the queue. "please_disconnect" raises IPC_EVENT_PLEASE_DISCONNECT,
// then IPC_EVENT_DISCONNECTED, and closes. With no command and no
// subscription left the client deletes the time-out, raises
// IPC_EVENT_DISCONNECTED and closes.
#pragma once

#include <event2/event.h>

#include <cstdint>

#include "core/callback_event.h"
#include "ipc/ipc_config.h"
#include "network/network.h"

// Dispatcher identifiers raised by the client, with the connection as data.
enum IpcEvent : uint32_t {
    IPC_EVENT_DISCONNECTED = 46,       // the conversation is over
    IPC_EVENT_PLEASE_DISCONNECT = 47,  // the agent serves another client
};

constexpr int32_t IPC_ANNOUNCEMENT_ID = 17;
// The announcement as it leaves, already serialised: the bytes the JSON
// serialiser writes for {"command": "connection", "id": 17}.
constexpr const char* IPC_ANNOUNCEMENT_WIRE = "{\"command\":\"connection\",\"id\":17}";
constexpr int32_t IPC_ID_RANGE = 15000;
constexpr size_t IPC_REQUEST_CHECK_SIZE = 1000;

struct IpcClientModule {
    // Sets the config's WebSocket callbacks and creates the connection with
    // the handshake as first state. Does not connect. Null on failure; the
    // caller owns the connection and destroys it (Network.destroy_connection)
    // once the loop has stopped.
    networkConnection* (*instantiate_ipc_client)(IpcClientConfig* config, struct event_base* base,
                                                 EventDispatcher* dispatcher);
    // Framing is up: announce, then send the head command.
    void (*connection_established_callback)(networkConnection* connection);
    // One complete message (not NUL-terminated); the binary flag is ignored.
    void (*receive_message_callback)(networkConnection* connection, const uint8_t* bytes,
                                     uint64_t length, int is_binary);
    // Raises IPC_EVENT_DISCONNECTED.
    void (*disconnected_callback)(networkConnection* connection);
    // Sends the head command's request. IPC_OK, or IPC_ERR_FAILED (empty
    // queue, no builder, request over 1000 bytes or not buildable).
    int (*execute_command)(networkConnection* connection, IpcClientConfig* config);
    // Raises IPC_EVENT_DISCONNECTED, then closes the WebSocket connection
    // (its protocol state is freed: a caller inside a read callback returns
    // at once). The connection record stays for its owner to destroy.
    void (*ipc_client_disconnect)(networkConnection* connection);
};

extern const IpcClientModule IpcClient;
