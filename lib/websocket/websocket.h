// WebSocket: frames on top of a network connection (RFC 6455 layout). The
// tool is always the client: the frames it sends are masked, those it
// receives need not be.
//
// read_frame takes bytes through a `read` function (normally
// Network.receive_data) into the connection's receive queue, so the frame
// code never touches a socket itself. Complete text or binary messages go to
// `on_message`; no close frame is ever sent back.
//
// Results (WebSocketResult): WS_OK (0) done, or nothing to do yet;
// WS_ERR_REFUSED (-1) a missing argument, or a frame or peer the connection
// cannot go on with (drop it); WS_ERR_SERIALIZE (-2) the value does not
// serialise into the send buffer; WS_ERR_DATA_TYPE (-3) an unknown data type;
// WS_ERR_MEMORY (-4) the frame cannot be allocated.
//
// A frame or a reassembled message above WS_MAX_MESSAGE_SIZE drops the
// connection and raises WS_EVENT_MESSAGE_TOO_LARGE, so the program can say
// why; the library itself prints nothing.
#pragma once

#include <cstdint>

#include "core/dynamic_buffer.h"
#include "network/network.h"
#include "sylvshared/json.h"

enum WebSocketResult : int {
    WS_OK = 0,
    WS_ERR_REFUSED = -1,
    WS_ERR_SERIALIZE = -2,
    WS_ERR_DATA_TYPE = -3,
    WS_ERR_MEMORY = -4,
};

// What the framing tells the layer above it.
using ConnectedCallback = void (*)(networkConnection* connection);
using MessageCallback = void (*)(networkConnection* connection, const uint8_t* bytes,
                                 uint64_t length, int is_binary);
using DisconnectCallback = void (*)(networkConnection* connection);

enum WebSocketOpcode : uint8_t {
    WS_OPCODE_CONTINUATION = 0,
    WS_OPCODE_TEXT = 1,
    WS_OPCODE_BINARY = 2,
    WS_OPCODE_CLOSE = 8,
    WS_OPCODE_PING = 9,
    WS_OPCODE_PONG = 10,
};

enum WebSocketDataType : int {
    WS_DATA_TEXT = 0,
    WS_DATA_BINARY = 1,
    WS_DATA_PONG = 2,
};

// Dispatcher identifiers raised by this module, with the connection as data.
enum WebSocketEvent : uint32_t {
    WS_EVENT_MESSAGE_TOO_LARGE = 48,  // the peer's message passed the bound
};

// Largest frame or reassembled message accepted, in bytes.
constexpr uint64_t WS_MAX_MESSAGE_SIZE = 16 * 1024 * 1024;
constexpr uint64_t WS_MAX_HEADER_SIZE = 14;
constexpr uint64_t WS_MAX_PAYLOAD_READ = 4096;
constexpr uint64_t WS_SEND_BUFFER_SIZE = 15000;
constexpr uint64_t WS_EXPECTED_ACCEPT_SIZE = 1024;

// Per-connection WebSocket state, kept in the connection's user_data.
struct websocketPeerDescriptor {
    uint64_t expected_size;  // header bytes wanted: 2 after a reset, 2..14
    bool header_complete;
    uint8_t header[WS_MAX_HEADER_SIZE];
    uint64_t payload_length;
    RingBuffer* message_queue;  // fragments of the message being reassembled
    uint8_t message_opcode;     // opcode of that message, 0 when none
    char expected_accept[WS_EXPECTED_ACCEPT_SIZE + 1];  // set by the handshake
};

// Network.receive_data (or receive_payload) or a stand-in that appends to
// the receive queue.
using WebSocketReadFunction = int64_t (*)(networkConnection* connection, int64_t max_size);

struct WebSocketModule {
    // Base64(SHA-1(nonce + RFC 6455 GUID)), malloc'd (caller frees), length
    // through out_length; null for a null or over-long (987+) nonce.
    char* (*compute_websocket_accept)(const char* nonce, uint64_t* out_length);
    // Value of "key:" (case-sensitive, searched in the whole NUL-terminated
    // header) up to the next ':', ' ' or '\r'; the header text is split in
    // place. A pointer into header, or null when absent, when the key has 512
    // characters or more, or when the value starts at or beyond `length`.
    char* (*find_value_from_http_header)(char* header, uint64_t length, const char* key);
    // Reads and handles at most one frame. WS_OK when handled or when more
    // bytes are needed; WS_ERR_REFUSED when the connection must be dropped
    // (also for a missing descriptor). on_message and
    // on_disconnect run last and may close the connection and free the
    // descriptor: nothing of it is touched after them. Message bytes are
    // valid only during on_message and are followed by a NUL byte (not
    // counted in the length), so a text message reads as a C string.
    int (*read_frame)(networkConnection* connection, websocketPeerDescriptor* descriptor,
                      bool require_mask, WebSocketReadFunction read,
                      DisconnectCallback on_disconnect, MessageCallback on_message);
    // Back to reading a 2-byte header.
    void (*reset_frame_state)(websocketPeerDescriptor* descriptor);
    // Zero-filled descriptor with its message queue, or null.
    websocketPeerDescriptor* (*create_peer_descriptor)();
    // Frees the queue and the record; null is ignored.
    void (*destroy_peer_descriptor)(websocketPeerDescriptor* descriptor);
    // Serialises `value` and queues it as one frame. Always frees `value`.
    // WS_OK sent (or nothing to send); WS_ERR_REFUSED missing argument;
    // WS_ERR_SERIALIZE (over 15000 bytes); WS_ERR_DATA_TYPE; WS_ERR_MEMORY.
    int (*send_data)(networkConnection* connection, JsonValue* value, int data_type, bool masked);
    // read_frame, except that what is left of a payload beyond
    // WS_MAX_PAYLOAD_READ is asked of `read_payload` in one request
    // (Network.receive_payload), so a large message comes in a few reads.
    // A null read_payload makes it read_frame.
    int (*read_frame_bulk)(networkConnection* connection, websocketPeerDescriptor* descriptor,
                           bool require_mask, WebSocketReadFunction read,
                           WebSocketReadFunction read_payload, DisconnectCallback on_disconnect,
                           MessageCallback on_message);
    // send_data of a value already serialised: `length` bytes of `text`
    // queued as one text frame, without building and serialising a value.
    // WS_OK sent (or nothing to send); WS_ERR_REFUSED missing argument or
    // over 15000 bytes; WS_ERR_MEMORY.
    int (*send_text)(networkConnection* connection, const char* text, uint64_t length, bool masked);
};

extern const WebSocketModule WebSocket;

// Builds one frame: header (key placed from the low 8 bits of the length, as
// the wire format of this program requires) and payload, masked when asked.
// Returns a malloc'd frame and its size through frame_length, or null.
uint8_t* websocket_build_frame(const uint8_t* payload, uint64_t length, uint8_t opcode, bool fin,
                               bool masked, uint64_t* frame_length);
