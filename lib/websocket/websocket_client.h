// WebSocketClient: the client side of the opening handshake, as the first
// protocol state of a connection, and the client's own operations.
//
// The handshake's setup sends "GET / HTTP/1.1" with Upgrade, Connection and
// Sec-WebSocket-Key and nothing else; its read callback wants the whole
// answer in the first read, checks "Sec-WebSocket-Accept" and switches the
// connection to the framing state, whose setup calls the layer above's
// on_connected. Every failure ends in close_websocket_connection.
#pragma once

#include "network/network.h"
#include "sylvshared/json.h"
#include "websocket/websocket.h"

// The layer above's callbacks, found through the connection config's
// layer_data. The record is the caller's and must outlive the connection;
// any callback may be null.
struct WebSocketCallbacks {
    ConnectedCallback on_connected;
    MessageCallback on_message;
    DisconnectCallback on_disconnect;
};

struct WebSocketClientModule {
    // New handshake state (setup sends the request, read checks the answer),
    // or null.
    ProtocolState* (*create_websocket_client_handshake_state)();
    // New framing state (read runs read_frame, setup resets it and calls
    // on_connected), or null.
    ProtocolState* (*create_framing_state)();
    // Points the config's layer_data at `callbacks` (kept, not copied).
    void (*set_callbacks)(networkConnectionConfig* config, const WebSocketCallbacks* callbacks);
    // Sends `value` as one masked text frame; frees it. Results of
    // WebSocket.send_data.
    int (*send)(networkConnection* connection, JsonValue* value);
    // Frees the connection's protocol state and peer descriptor, then
    // Network.close_connection.
    void (*close_websocket_connection)(networkConnection* connection);
    // `send` of a value already serialised into `text` (length bytes): one
    // masked text frame. Results of WebSocket.send_text.
    int (*send_text)(networkConnection* connection, const char* text, uint64_t length);
};

extern const WebSocketClientModule WebSocketClient;
