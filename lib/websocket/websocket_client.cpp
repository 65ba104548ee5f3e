// WebSocket client: the opening handshake as a connection's first protocol
// state, then the framing state that carries the messages.

#include "websocket/websocket_client.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "core/logger.h"
#include "core/no_throw.h"
#include "core/owned.h"
#include "websocket/crypto.h"

namespace {

constexpr uint64_t kNonceSize = 16;
constexpr uint32_t kRequestBufferCapacity = 1024;
constexpr int64_t kHandshakeReadSize = 1024;
constexpr char kRequestStart[] =
    "GET / HTTP/1.1\r\nUpgrade: websocket\r\nConnection: Upgrade\r\nSec-WebSocket-Key: ";
constexpr char kRequestEnd[] = "\r\n\r\n";
constexpr char kAcceptHeader[] = "Sec-WebSocket-Accept";

using OwnedText = MallocPtr<char>;

websocketPeerDescriptor* descriptor_of(networkConnection* connection) {
    return static_cast<websocketPeerDescriptor*>(connection->user_data);
}

// The layer above's callbacks; an empty record when none were set.
const WebSocketCallbacks& callbacks_of(const networkConnection* connection) {
    static const WebSocketCallbacks none{};
    const networkConnectionConfig* config = connection->config;
    if (config == nullptr || config->layer_data == nullptr) {
        return none;
    }
    return *static_cast<const WebSocketCallbacks*>(config->layer_data);
}

// Frees the running state and the descriptor, then closes the socket. The
// connection record stays; a read callback must return right after this.
void close_websocket_connection(networkConnection* connection) {
    if (connection == nullptr) {
        return;
    }
    ProtocolState* state = connection->protocol_state;
    connection->protocol_state = nullptr;
    Network.free_protocol_state(state);
    WebSocket.destroy_peer_descriptor(descriptor_of(connection));
    Network.set_user_data(connection, nullptr);
    Network.close_connection(connection);
}

// ---- framing state ---------------------------------------------------------

// Whether the connection still runs `state` with its descriptor: callbacks
// may close it (the state and the descriptor are then freed).
bool still_framing(const networkConnection* connection, const ProtocolState* state) {
    return connection->protocol_state == state && connection->user_data != nullptr &&
           connection->state == NETWORK_CONNECTED;
}

// Framing read callback: reads ahead up to 4096 bytes, so a small frame takes
// one recv(), and goes on while bytes read ahead are left (the socket no
// longer signals them); each round hands out at least one of them, and a
// close drops them. -1 drops the socket.
void framing_read(evutil_socket_t /*fd*/, short /*events*/, void* argument) {
    auto* connection = static_cast<networkConnection*>(argument);
    if (connection == nullptr) {
        return;
    }
    const ProtocolState* state = connection->protocol_state;
    do {
        const WebSocketCallbacks& callbacks = callbacks_of(connection);
        if (WebSocket.read_frame_bulk(connection, descriptor_of(connection), false,
                                      Network.receive_ahead, Network.receive_payload,
                                      callbacks.on_disconnect, callbacks.on_message) < 0) {
            Network.close_connection(connection);
            return;
        }
    } while (still_framing(connection, state) && Network.kept_ahead(connection) != 0);
}

// Framing setup: starts from a clean header and an empty receive queue, so
// bytes that came with the handshake answer are dropped. on_connected runs
// last: it may close the connection and free this state.
void framing_setup(networkConnection* connection) {
    if (connection == nullptr) {
        return;
    }
    WebSocket.reset_frame_state(descriptor_of(connection));
    DynamicBuffer.clear(connection->receive_queue);
    const WebSocketCallbacks& callbacks = callbacks_of(connection);
    if (callbacks.on_connected != nullptr) {
        callbacks.on_connected(connection);
    }
}

ProtocolState* create_framing_state() {
    ProtocolState* state =
        Network.create_protocol_state(framing_read, nullptr, framing_setup, nullptr);
    if (state == nullptr) {
        Logger.fatal("Error while allocating ProtocolState");
    }
    return state;
}

// ---- handshake state -------------------------------------------------------

// Prepares the descriptor and the expected accept value and queues the
// upgrade request. 0, or -1 (logged) when the connection must be closed.
int send_upgrade_request(networkConnection* connection) {
    // A descriptor left by an earlier attempt of this connection is stale.
    WebSocket.destroy_peer_descriptor(descriptor_of(connection));
    Network.set_user_data(connection, nullptr);
    websocketPeerDescriptor* descriptor = WebSocket.create_peer_descriptor();
    if (descriptor == nullptr) {
        Logger.fatal("Unable tocreate websocket server descriptor");
        return -1;
    }
    Network.set_user_data(connection, descriptor);
    uint8_t nonce[kNonceSize] = {};
    if (Crypto.random_bytes(nonce, sizeof nonce) < 0) {
        Logger.fatal("Unable to generate random nonce for websocket request challenge");
        return -1;
    }
    OwnedText key(Crypto.base64_encode(nonce, sizeof nonce, nullptr));
    if (!key) {
        Logger.error("Unable to encode nonce challenge in base64.");
        return -1;
    }
    uint64_t accept_length = 0;
    OwnedText accept(WebSocket.compute_websocket_accept(key.get(), &accept_length));
    if (!accept) {
        return -1;
    }
    if (accept_length > WS_EXPECTED_ACCEPT_SIZE) {
        Logger.error("Generated encoded challenged is too long. Connection aborted");
        return -1;
    }
    memcpy(descriptor->expected_accept, accept.get(), accept_length + 1);
    // Written whole on the stack: the key is 24 bytes.
    char request[kRequestBufferCapacity];
    const size_t key_length = strlen(key.get());
    const size_t length = sizeof kRequestStart - 1 + key_length + sizeof kRequestEnd - 1;
    if (length > sizeof request) {
        Logger.error("Unable to build the websocket upgrade request");
        return -1;
    }
    memcpy(request, kRequestStart, sizeof kRequestStart - 1);
    memcpy(request + sizeof kRequestStart - 1, key.get(), key_length);
    memcpy(request + sizeof kRequestStart - 1 + key_length, kRequestEnd, sizeof kRequestEnd - 1);
    Logger.debug("WebSocket handshake request: %.*s", static_cast<int>(length), request);
    const int sent = Network.send(connection, request, length);
    if (sent != NETWORK_OK) {
        Logger.error("Unable to send the websocket upgrade request");
        return -1;
    }
    return 0;
}

// Handshake setup: sends the upgrade request; any failure closes.
void handshake_setup(networkConnection* connection) {
    if (connection == nullptr) {
        return;
    }
    Logger.trace("Websocket client handshake attempt");
    if (send_upgrade_request(connection) != 0) {
        close_websocket_connection(connection);
    }
}

// Checks the answer in the receive queue. 0 when the server solved the
// challenge, -1 (logged) otherwise.
int check_answer_text(networkConnection* connection) {
    RingBuffer* queue = connection->receive_queue;
    const uint64_t length = DynamicBuffer.size(queue);
    uint8_t copied = 0;
    uint8_t* bytes = DynamicBuffer.get_data(queue, &copied);
    std::string text;
    if (bytes != nullptr) {
        text.assign(reinterpret_cast<const char*>(bytes), length);
    }
    if (copied == 1) {
        free(bytes);
    }
    Logger.debug("WebSocket handshake answer: %.*s", static_cast<int>(text.size()), text.c_str());
    const size_t blank_line = text.find("\r\n\r\n");
    if (blank_line == std::string::npos) {
        Logger.trace("Not received HTTP header yet while handshaking websocket client");
        return -1;
    }
    const char* value =
        WebSocket.find_value_from_http_header(text.data(), blank_line, kAcceptHeader);
    if (value == nullptr) {
        return -1;
    }
    websocketPeerDescriptor* descriptor = descriptor_of(connection);
    if (descriptor == nullptr) {
        Logger.error("Websocket Peer Descriptor is NULL");
        return -1;
    }
    if (strncmp(value, descriptor->expected_accept, WS_EXPECTED_ACCEPT_SIZE) != 0) {
        Logger.error("Server failed to solve Websocket client challenge. Connection closed");
        return -1;
    }
    return 0;
}

int check_upgrade_answer(networkConnection* connection) {
    return without_throwing("WebSocketClient handshake", -1,
                            [&] { return check_answer_text(connection); });
}

// Handshake read: the whole answer must come in this first read. On
// success the connection moves to the framing state, whose setup may
// already close it: nothing is touched after the switch.
void handshake_read(evutil_socket_t /*fd*/, short /*events*/, void* argument) {
    auto* connection = static_cast<networkConnection*>(argument);
    if (connection == nullptr) {
        return;
    }
    if (Network.receive_data(connection, kHandshakeReadSize) < 0) {
        return;
    }
    if (check_upgrade_answer(connection) != 0) {
        close_websocket_connection(connection);
        return;
    }
    Logger.trace("Server succeeded to solve Websocket challenge. Switching to sync state");
    ProtocolState* framing = create_framing_state();
    if (framing == nullptr) {
        Logger.error("Unable to instantiate sync state for websocket connection");
        close_websocket_connection(connection);
        return;
    }
    websocketPeerDescriptor* descriptor = descriptor_of(connection);
    DynamicBuffer.clear(descriptor->message_queue);
    descriptor->message_opcode = 0;
    Network.switch_protocol_state(connection, framing);
}

ProtocolState* create_websocket_client_handshake_state() {
    ProtocolState* state =
        Network.create_protocol_state(handshake_read, nullptr, handshake_setup, nullptr);
    if (state == nullptr) {
        Logger.fatal("Error while allocating ProtocolState");
    }
    return state;
}

// ---- client operations -----------------------------------------------------

void set_callbacks(networkConnectionConfig* config, const WebSocketCallbacks* callbacks) {
    if (config == nullptr) {
        Logger.error("Unable to set websocket callbacks because provided config is NULL");
        return;
    }
    config->layer_data = callbacks;
}

int client_send(networkConnection* connection, JsonValue* value) {
    return WebSocket.send_data(connection, value, WS_DATA_TEXT, true);
}

int client_send_text(networkConnection* connection, const char* text, uint64_t length) {
    return WebSocket.send_text(connection, text, length, true);
}

}  // namespace

const WebSocketClientModule WebSocketClient = {
    .create_websocket_client_handshake_state = create_websocket_client_handshake_state,
    .create_framing_state = create_framing_state,
    .set_callbacks = set_callbacks,
    .send = client_send,
    .close_websocket_connection = close_websocket_connection,
    .send_text = client_send_text,
};
