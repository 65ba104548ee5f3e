// WebSocket framing: reads frames from a connection's receive queue, rebuilds
// fragmented messages, answers pings, and sends JSON values as single frames.

#include "websocket/websocket.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "core/byte_order.h"
#include "core/callback_event.h"
#include "core/logger.h"
#include "core/no_throw.h"
#include "core/owned.h"
#include "core/random_bytes.h"
#include "websocket/crypto.h"

namespace {

constexpr char kAcceptGuid[] = "258EAFA5-E914-47DA-95CA-C5AB0DC85B11";
constexpr uint64_t kMaxNonceLength = 987;  // nonce + GUID + NUL fill 1024 bytes
constexpr uint64_t kMaxHeaderKeyLength = 511;
constexpr uint32_t kMessageQueueCapacity = 512;
// A frame carries at most this much in the 16-bit length form.
constexpr uint64_t kMaxPieceLength = 65535;
// Every JSON text the sender can hold fits in one frame.
static_assert(WS_SEND_BUFFER_SIZE <= kMaxPieceLength);

constexpr uint8_t kFinBit = 0x80;
constexpr uint8_t kMaskBit = 0x80;
constexpr uint8_t kOpcodeBits = 0x0f;
constexpr uint8_t kLengthBits = 0x7f;
constexpr uint8_t kLength16 = 126;
constexpr uint8_t kLength64 = 127;
// Reading one message holds it about twice (the queue it arrives in, then
// the parsed document), so a peer can make a run hold some 40 MiB, and a
// list of 30,000 services (about 8 MB) fits in one message.
constexpr uint64_t kMaxMessageSize = WS_MAX_MESSAGE_SIZE;

using Owned = MallocPtr<uint8_t>;

// Header size without the key for a length code: 2, 4 or 10.
uint64_t length_form_size(uint8_t length_code) {
    if (length_code < kLength16) {
        return 2;
    }
    return length_code == kLength16 ? 4 : 10;
}

// Masking key held by a complete header, as a host-order number; 0 without MASK.
uint32_t header_key(const uint8_t* header) {
    if ((header[1] & kMaskBit) == 0) {
        return 0;
    }
    uint32_t wire = 0;
    memcpy(&wire, header + length_form_size(header[1] & kLengthBits), sizeof wire);
    return ByteOrder.network_to_host_32(wire);
}

// XORs byte i with key byte (i mod 4), key bytes in wire order. Key 0 is
// neutral, and it is what every frame from the agent carries: skip the walk.
void apply_mask(uint8_t* bytes, uint64_t length, uint32_t key) {
    if (key == 0) {
        return;
    }
    const std::array<uint8_t, 4> key_bytes = {
        static_cast<uint8_t>(key >> 24), static_cast<uint8_t>(key >> 16),
        static_cast<uint8_t>(key >> 8), static_cast<uint8_t>(key)};
    for (uint64_t i = 0; i < length; ++i) {
        bytes[i] ^= key_bytes[i % 4];
    }
}

// Payload length announced by a complete header.
uint64_t decode_payload_length(const uint8_t* header) {
    const uint8_t code = header[1] & kLengthBits;
    if (code < kLength16) {
        return code;
    }
    if (code == kLength16) {
        return static_cast<uint64_t>(header[2]) << 8 | header[3];
    }
    if (code == kLength64) {
        uint64_t wire = 0;
        memcpy(&wire, header + 2, sizeof wire);
        return ByteOrder.host_to_network_64(wire);  // the swap is its own inverse
    }
    Logger.error("Error while computing the websocket payload size in frame.");
    return 0;
}

void call_disconnect(networkConnection* connection, DisconnectCallback on_disconnect) {
    if (on_disconnect != nullptr) {
        on_disconnect(connection);
    }
}

// A message of `size` bytes passes the bound: says so to the dispatcher's
// subscribers (later, from the loop) before the connection is dropped.
void report_too_large(networkConnection* connection, uint64_t size) {
    Logger.error("Websocket message of at least %llu bytes exceeds %llu bytes. Disconnection.",
                 static_cast<unsigned long long>(size),
                 static_cast<unsigned long long>(kMaxMessageSize));
    if (connection->dispatcher != nullptr) {
        CallbackEvent.notify(connection->dispatcher, WS_EVENT_MESSAGE_TOO_LARGE, connection);
    }
}

// ---- upgrade helpers -------------------------------------------------------

// Base64(SHA-1(nonce + GUID)); the caller frees the result.
char* accept_of(const char* nonce, uint64_t* out_length) {
    if (nonce == nullptr) {
        Logger.trace("Provided base64 encoded nonce is NULL");
        return nullptr;
    }
    Logger.trace("Considering base64 encoded nonce: %s", nonce);
    const size_t nonce_length = strlen(nonce);
    if (nonce_length > kMaxNonceLength) {
        Logger.error("Base64 encoded nonce value is too long. Cannot proceed it. (%ld)",
                     static_cast<long>(nonce_length));
        return nullptr;
    }
    uint8_t challenge[kMaxNonceLength + sizeof kAcceptGuid];  // nonce + GUID, on the stack
    memcpy(challenge, nonce, nonce_length);
    memcpy(challenge + nonce_length, kAcceptGuid, sizeof kAcceptGuid - 1);
    uint8_t digest[SHA1_DIGEST_SIZE] = {};
    if (Crypto.sha1_compute(challenge, nonce_length + sizeof kAcceptGuid - 1, digest) != 0) {
        Logger.error("Unable to sha1 value");
        return nullptr;
    }
    uint64_t length = 0;
    char* accept = Crypto.base64_encode(digest, sizeof digest, &length);
    if (accept == nullptr) {
        Logger.error("Unable to encode solved websocket challenge in base64.");
        return nullptr;
    }
    Logger.trace("Got the websocket solved challenge : %s (size = %lld)", accept,
                 static_cast<long long>(length));
    if (out_length != nullptr) {
        *out_length = length;
    }
    return accept;
}

char* compute_websocket_accept(const char* nonce, uint64_t* out_length) {
    return without_throwing<char*>("WebSocket.compute_websocket_accept", nullptr,
                                   [&] { return accept_of(nonce, out_length); });
}

// Whether `byte` is one of the NUL-terminated `delimiters`.
bool is_delimiter(char byte, const char* delimiters) {
    for (; *delimiters != '\0'; ++delimiters) {
        if (*delimiters == byte) {
            return true;
        }
    }
    return false;
}

// strtok_r's cut of the NUL-terminated text at *cursor: skips delimiters,
// ends the token at the next one (overwritten with NUL) and moves *cursor
// past it. Null when only delimiters are left.
char* cut_token(char** cursor, const char* delimiters) {
    char* start = *cursor;
    while (*start != '\0' && is_delimiter(*start, delimiters)) {
        ++start;
    }
    char* end = start;
    while (*end != '\0' && !is_delimiter(*end, delimiters)) {
        ++end;
    }
    *cursor = *end != '\0' ? end + 1 : end;
    if (*end != '\0') {
        *end = '\0';
    }
    return *start != '\0' ? start : nullptr;
}

// First "key:" in the NUL-terminated header, or null. The header is at most
// one read of the upgrade's answer long and the key a short constant.
char* find_key(char* header, const char* key, size_t key_length) {
    for (char* at = header; *at != '\0'; ++at) {
        if ((key_length == 0 || *at == *key) && strncmp(at, key, key_length) == 0 &&
            at[key_length] == ':') {
            return at;
        }
    }
    return nullptr;
}

// Finds "key:" anywhere in the NUL-terminated header and cuts its value out
// in place (strtok with ": " then ": \r"). Returns a pointer into header.
char* find_header_value(char* header, uint64_t length, const char* key) {
    if (header == nullptr || key == nullptr) {
        Logger.error("Unable to look up an http header: missing header or key");
        return nullptr;
    }
    const size_t key_length = strlen(key);
    if (key_length > kMaxHeaderKeyLength) {
        Logger.error(
            "Provided http key in find_value_from_http_header function is too long : %ld. Max: "
            "511",
            static_cast<long>(key_length));
        return nullptr;
    }
    char* cursor = find_key(header, key, key_length);
    if (cursor == nullptr) {
        Logger.trace("Header %s not found", key);
        return nullptr;
    }
    cut_token(&cursor, ": ");
    char* value = cut_token(&cursor, ": \r");
    if (value == nullptr || value >= header + length) {
        Logger.trace("Error while parsing header");
        return nullptr;
    }
    return value;
}

char* find_value_from_http_header(char* header, uint64_t length, const char* key) {
    return without_throwing<char*>("WebSocket.find_value_from_http_header", nullptr,
                                   [&] { return find_header_value(header, length, key); });
}

// ---- descriptor ------------------------------------------------------------

void reset_frame_state(websocketPeerDescriptor* descriptor) {
    if (descriptor == nullptr) {
        return;
    }
    descriptor->expected_size = 2;
    descriptor->header_complete = false;
    memset(descriptor->header, 0, sizeof descriptor->header);
    descriptor->payload_length = 0;
}

websocketPeerDescriptor* create_peer_descriptor() {
    auto* descriptor =
        static_cast<websocketPeerDescriptor*>(calloc(1, sizeof(websocketPeerDescriptor)));
    if (descriptor == nullptr) {
        Logger.fatal("Unable to allocate memory for websocket peer descriptor");
        return nullptr;
    }
    descriptor->message_queue = DynamicBuffer.create(kMessageQueueCapacity);
    if (descriptor->message_queue == nullptr) {
        Logger.fatal("Unable to allocate memory for received queue in websocket client descriptor");
        free(descriptor);
        return nullptr;
    }
    return descriptor;
}

void destroy_peer_descriptor(websocketPeerDescriptor* descriptor) {
    if (descriptor == nullptr) {
        return;
    }
    DynamicBuffer.free(descriptor->message_queue);
    free(descriptor);
}

// ---- sending ---------------------------------------------------------------

// Builds one frame of `length` payload bytes and queues it. WS_OK, also
// when the connection no longer takes it (the layer above learns that from
// its own events); WS_ERR_MEMORY when the frame cannot be built.
int queue_frame(networkConnection* connection, const uint8_t* payload, uint64_t length,
                uint8_t opcode, bool masked) {
    uint64_t frame_length = 0;
    uint8_t* frame = websocket_build_frame(payload, length, opcode, true, masked, &frame_length);
    if (frame == nullptr) {
        Logger.error("Error while trying to send websocket data");
        return WS_ERR_MEMORY;
    }
    Logger.debug("Sending a frame: opcode %u, %d bytes%s", opcode, static_cast<int>(length),
                 masked ? ", masked" : "");
    const int queued = Network.send(connection, frame, frame_length);
    free(frame);
    if (queued != NETWORK_OK) {
        Logger.error("Unable to queue websocket data");
        return WS_OK;
    }
    Logger.trace("Websocket data sent");
    return WS_OK;
}

// Serialises and queues `value` as one frame; always frees `value`.
int send_data(networkConnection* connection, JsonValue* value, int data_type, bool masked) {
    if (value == nullptr) {
        Logger.error("Null json_object parameter in send_data function.");
        return WS_ERR_REFUSED;
    }
    if (connection == nullptr) {
        Logger.error("Provided connection is NULL. Unable to send websocket data");
        json_free_value(value);
        return WS_ERR_REFUSED;
    }
    char text[WS_SEND_BUFFER_SIZE];  // only the serialised length is read
    const int length = json_serialize(value, text, sizeof text);
    json_free_value(value);
    if (length < 0) {
        Logger.error(
            "Unable to serialize Json data in send_data function. Buffer length may be too small. "
            "Unable to send websocket data");
        return WS_ERR_SERIALIZE;
    }
    if (length == 0 && data_type != WS_DATA_PONG) {
        Logger.trace("Serialized buffer length is 0. Unable to send websocket data");
        return WS_OK;
    }
    uint8_t opcode = 0;
    switch (data_type) {
        case WS_DATA_TEXT:
            Logger.trace("Sending a websocket text frame");
            opcode = WS_OPCODE_TEXT;
            break;
        case WS_DATA_BINARY:
            Logger.trace("Sending a websocket binary frame");
            opcode = WS_OPCODE_BINARY;
            break;
        case WS_DATA_PONG:
            Logger.trace("Sending a websocket pong frame");
            opcode = WS_OPCODE_PONG;
            break;
        default:
            Logger.error("Provided datatype not known: %d. Unable to send websocket data",
                         data_type);
            return WS_ERR_DATA_TYPE;
    }
    return queue_frame(connection, reinterpret_cast<const uint8_t*>(text),
                       static_cast<uint64_t>(length), opcode, masked);
}

// Queues `text` as one text frame: the serialised form of a value that
// send_data would have sent.
int send_text(networkConnection* connection, const char* text, uint64_t length, bool masked) {
    if (connection == nullptr || text == nullptr || length >= WS_SEND_BUFFER_SIZE) {
        Logger.error("Unable to send websocket text: missing connection or text, or too long");
        return WS_ERR_REFUSED;
    }
    if (length == 0) {
        Logger.trace("Serialized buffer length is 0. Unable to send websocket data");
        return WS_OK;
    }
    Logger.trace("Sending a websocket text frame");
    return queue_frame(connection, reinterpret_cast<const uint8_t*>(text), length, WS_OPCODE_TEXT,
                       masked);
}

// The pong carries "{}" rather than the ping's payload, unmasked.
int send_pong(networkConnection* connection) {
    if (connection == nullptr) {
        Logger.error("Unable to send pong frame to client. Provided connection is NULL");
        return WS_ERR_REFUSED;
    }
    Logger.trace("Trying to send a websocket pong frame...");
    return send_data(connection, json_create_json_object(), WS_DATA_PONG, false);
}

// ---- reading ---------------------------------------------------------------

// What a finished frame asks of the layer above, run once the descriptor is
// settled: the callbacks may close the connection and free the descriptor.
enum class FrameAction { None, Disconnect, Message, Deliver, Close, Ping, Pong, Unknown };

// Bytes of one payload or message: a view into a queue's storage, or a copy
// owned here. Either way bytes[length] is a NUL.
struct Payload {
    uint8_t* bytes = nullptr;
    Owned owned;
    uint64_t length = 0;
};

struct FrameOutcome {
    FrameAction action = FrameAction::None;
    int result = 0;
    Payload message;
    int is_binary = 0;
    uint8_t opcode = 0;
};

// The first `length` unread bytes of queue followed by a NUL. They are taken
// in place when the queue holds them in one run with a byte to spare (the
// case for a payload read after reserve_payload); otherwise copied. The view
// stays valid until the queue is next read or grown.
Payload take_bytes(RingBuffer* queue, uint64_t length) {
    Payload payload;
    payload.length = length;
    if (queue->read_index == 0 && queue->capacity > length) {
        uint8_t copied = 0;
        uint8_t* storage = DynamicBuffer.get_data(queue, &copied);
        storage[length] = 0;
        payload.bytes = storage;
        return payload;
    }
    payload.owned.reset(static_cast<uint8_t*>(malloc(length + 1)));
    if (payload.owned) {
        DynamicBuffer.peek(queue, payload.owned.get(), length);
        payload.owned.get()[length] = 0;
        payload.bytes = payload.owned.get();
    }
    return payload;
}

FrameOutcome disconnect_outcome() {
    FrameOutcome outcome;
    outcome.action = FrameAction::Disconnect;
    outcome.result = -1;
    return outcome;
}

// Hands the reassembled message (NUL included, see settle_frame) up.
void take_message(networkConnection* connection, websocketPeerDescriptor* descriptor,
                  FrameOutcome& outcome) {
    RingBuffer* queue = descriptor->message_queue;
    outcome.message = take_bytes(queue, DynamicBuffer.size(queue) - 1);
    outcome.opcode = descriptor->message_opcode;
    if (connection->config == nullptr) {
        Logger.error("Provided client descriptor is NULL");
        outcome.action = FrameAction::None;
    } else if (outcome.message.bytes == nullptr) {
        Logger.fatal("Unable to allocate memory for a reassembled websocket message");
        outcome.action = FrameAction::None;
    } else if (outcome.opcode == WS_OPCODE_TEXT || outcome.opcode == WS_OPCODE_BINARY) {
        outcome.action = FrameAction::Deliver;
        outcome.is_binary = outcome.opcode == WS_OPCODE_BINARY ? 1 : 0;
    } else {
        outcome.action = FrameAction::Unknown;
    }
}

// Room in the reassembly queue for `count` more bytes. It grows by doubling
// into a fresh queue: appending to the exact-fit queue would copy the whole
// message at every fragment, minutes of copying for a peer that streams
// small fragments up to the bound.
bool reserve_message(websocketPeerDescriptor* descriptor, uint64_t count) {
    RingBuffer* queue = descriptor->message_queue;
    const uint64_t queued = DynamicBuffer.size(queue);
    if (queue->capacity - queued >= count) {
        return true;
    }
    const uint64_t capacity = std::min(std::max(2 * uint64_t{queue->capacity}, queued + count),
                                       std::max(kMaxMessageSize + 1, queued + count));
    RingBuffer* larger = DynamicBuffer.create(static_cast<uint32_t>(capacity));
    if (larger == nullptr) {
        return false;
    }
    uint8_t copied = 0;
    uint8_t* bytes = DynamicBuffer.get_data(queue, &copied);
    const int appended = bytes != nullptr ? DynamicBuffer.append(larger, bytes, queued) : -1;
    if (copied == 1) {
        free(bytes);
    }
    if (appended != 0) {
        DynamicBuffer.free(larger);
        return false;
    }
    DynamicBuffer.free(queue);
    descriptor->message_queue = larger;
    return true;
}

// Adds a fragment to the message being reassembled; the final one brings
// its NUL along. The bound holds for the total at every fragment.
bool add_fragment(networkConnection* connection, websocketPeerDescriptor* descriptor,
                  const Payload& block, bool last) {
    const uint64_t total = DynamicBuffer.size(descriptor->message_queue) + block.length;
    if (total > kMaxMessageSize) {
        report_too_large(connection, total);
        return false;
    }
    const uint64_t count = block.length + (last ? 1 : 0);
    if (!reserve_message(descriptor, count) ||
        DynamicBuffer.append(descriptor->message_queue, block.bytes, count) != 0) {
        Logger.fatal("Unable to allocate memory for a reassembled websocket message");
        return false;
    }
    return true;
}

// Settles a frame whose payload is `block` (unmasked): updates the
// reassembly and the receive queue, and says what to tell the layer above.
FrameOutcome settle_frame(networkConnection* connection, websocketPeerDescriptor* descriptor,
                          Payload block) {
    FrameOutcome outcome;
    const uint8_t opcode = descriptor->header[0] & kOpcodeBits;
    const bool fin = (descriptor->header[0] & kFinBit) != 0;
    RingBuffer* receive_queue = connection->receive_queue;
    if (!fin) {
        if (descriptor->message_opcode != 0 && opcode != WS_OPCODE_CONTINUATION) {
            Logger.error("Received bad websocket continuation frame. Disconnection.");
            return disconnect_outcome();
        }
        if (!add_fragment(connection, descriptor, block, false)) {
            return disconnect_outcome();
        }
        if (opcode != WS_OPCODE_CONTINUATION) {
            descriptor->message_opcode = opcode;
        }
        DynamicBuffer.clear(receive_queue);
        return outcome;
    }
    if (opcode == WS_OPCODE_CONTINUATION) {
        if (descriptor->message_opcode == 0) {
            Logger.error(
                "Received a websocket continuation fin frame but no initial frame were received. "
                "Disconnection.");
            return disconnect_outcome();
        }
        if (!add_fragment(connection, descriptor, block, true)) {
            return disconnect_outcome();
        }
        take_message(connection, descriptor, outcome);
        descriptor->message_opcode = 0;
        DynamicBuffer.clear(descriptor->message_queue);
        DynamicBuffer.clear(receive_queue);
        return outcome;
    }
    outcome.message = std::move(block);
    outcome.opcode = opcode;
    switch (opcode) {
        case WS_OPCODE_TEXT:
        case WS_OPCODE_BINARY:
            outcome.action = FrameAction::Message;
            outcome.is_binary = opcode == WS_OPCODE_BINARY ? 1 : 0;
            break;
        case WS_OPCODE_CLOSE:
            outcome.action = FrameAction::Close;
            outcome.result = -1;  // the receive queue is left as it is
            return outcome;
        case WS_OPCODE_PING:
            outcome.action = FrameAction::Ping;
            break;
        case WS_OPCODE_PONG:
            outcome.action = FrameAction::Pong;
            break;
        default:
            outcome.action = FrameAction::Unknown;
            break;
    }
    DynamicBuffer.clear(receive_queue);
    return outcome;
}

// Tells the layer above what the frame meant. Touches no framing state.
void run_outcome(networkConnection* connection, const FrameOutcome& outcome,
                 DisconnectCallback on_disconnect, MessageCallback on_message) {
    const uint8_t* bytes = outcome.message.bytes;
    switch (outcome.action) {
        case FrameAction::None:
            break;
        case FrameAction::Disconnect:
            call_disconnect(connection, on_disconnect);
            break;
        case FrameAction::Message:
            Logger.trace(outcome.is_binary != 0 ? "Received a binary frame"
                                                : "Received a text frame");
            [[fallthrough]];
        case FrameAction::Deliver:
            if (on_message != nullptr) {
                on_message(connection, bytes, outcome.message.length, outcome.is_binary);
            }
            break;
        case FrameAction::Close:
            Logger.trace("Received a websocket close frame");
            call_disconnect(connection, on_disconnect);
            break;
        case FrameAction::Ping:
            Logger.trace("Received a websocket ping frame with buffer [%.*s]",
                         static_cast<int>(outcome.message.length),
                         reinterpret_cast<const char*>(bytes));
            send_pong(connection);
            break;
        case FrameAction::Pong:
            Logger.trace("Received a websocket pong frame");
            break;
        case FrameAction::Unknown:
            Logger.trace("Received an unknown opcode: %d. Ignored", outcome.opcode);
            break;
    }
}

// Gives the connection a receive queue with room for the whole payload and
// its NUL at once. The payload comes in reads of at most 4096 bytes, and the
// exact-fit queue would otherwise reallocate and copy everything queued at
// each of them, which for a list of thousands of services costs seconds. A
// new, empty queue of that capacity takes the old one's place: growing the
// old one would first copy (and fault in) a payload of filler. Headers are
// read to their exact size, so nothing is queued here; if something were,
// the old queue stays and grows read by read.
void reserve_payload(networkConnection* connection, uint64_t payload_length) {
    RingBuffer* queue = connection->receive_queue;
    const uint64_t room_needed = payload_length + 1;
    if (queue == nullptr || queue->capacity >= room_needed || DynamicBuffer.size(queue) != 0) {
        return;
    }
    RingBuffer* roomy = DynamicBuffer.create(static_cast<uint32_t>(room_needed));
    if (roomy != nullptr) {
        DynamicBuffer.free(queue);
        connection->receive_queue = roomy;
    }
}

// Header step. Returns 1 when the header is complete and the payload can be
// read in this same call, otherwise the value read_frame returns.
int read_header(networkConnection* connection, websocketPeerDescriptor* descriptor,
                bool require_mask, WebSocketReadFunction read, DisconnectCallback on_disconnect) {
    RingBuffer* queue = connection->receive_queue;
    const uint64_t wanted = descriptor->expected_size - DynamicBuffer.size(queue);
    if (read(connection, static_cast<int64_t>(wanted)) < 0) {
        call_disconnect(connection, on_disconnect);
        return 0;
    }
    if (DynamicBuffer.size(queue) < 2) {
        return 0;
    }
    DynamicBuffer.peek(queue, descriptor->header, 2);
    const uint8_t code = descriptor->header[1] & kLengthBits;
    const bool masked = (descriptor->header[1] & kMaskBit) != 0;
    Logger.trace("Received a websocket header with raw payload length: %d. Mask size is %d", code,
                 masked ? 4 : 0);
    descriptor->expected_size = length_form_size(code) + (masked ? 4 : 0);
    const uint64_t queued = DynamicBuffer.size(queue);
    if (queued < descriptor->expected_size) {
        Logger.trace(
            "Not already received enough data for completing websocket header (expected: %d, "
            "received: %d)",
            static_cast<int>(descriptor->expected_size), static_cast<int>(queued));
        return 0;
    }
    DynamicBuffer.read(queue, descriptor->header, descriptor->expected_size);
    descriptor->header_complete = true;
    descriptor->payload_length = decode_payload_length(descriptor->header);
    Logger.debug("Received a frame: opcode %u, fin %u, %llu bytes",
                 descriptor->header[0] & kOpcodeBits,
                 (descriptor->header[0] & kFinBit) != 0 ? 1u : 0u,
                 static_cast<unsigned long long>(descriptor->payload_length));
    if (!masked && require_mask) {
        Logger.error("Received a frame from with no mask enabled. This should not happen");
        call_disconnect(connection, on_disconnect);
        return -1;
    }
    if (descriptor->payload_length > kMaxMessageSize) {
        report_too_large(connection, descriptor->payload_length);
        call_disconnect(connection, on_disconnect);
        return -1;
    }
    reserve_payload(connection, descriptor->payload_length);
    return descriptor->payload_length == 0 ? 1 : 0;
}

// Reads and handles at most one frame: 0 handled or waiting, -1 drop. What
// is left of a payload beyond WS_MAX_PAYLOAD_READ goes through read_payload
// in one request when there is one, else through read in pieces.
int read_frame_bulk(networkConnection* connection, websocketPeerDescriptor* descriptor,
                    bool require_mask, WebSocketReadFunction read,
                    WebSocketReadFunction read_payload, DisconnectCallback on_disconnect,
                    MessageCallback on_message) {
    if (connection == nullptr) {
        return 0;
    }
    if (descriptor == nullptr) {
        Logger.error("Websocket Peer Descriptor is NULL");
        return WS_ERR_REFUSED;
    }
    if (!descriptor->header_complete) {
        const int header = read_header(connection, descriptor, require_mask, read, on_disconnect);
        if (header != 1) {
            return header;
        }
    }
    RingBuffer* queue = connection->receive_queue;
    // Unsigned on purpose: bytes of a following frame already queued make
    // this wrap, and the read then takes what is there into this payload.
    uint64_t count = descriptor->payload_length - DynamicBuffer.size(queue);
    WebSocketReadFunction reader = read;
    if (count > WS_MAX_PAYLOAD_READ) {
        const bool missing = count <= descriptor->payload_length;  // not the wrapped count
        if (missing && read_payload != nullptr) {
            reader = read_payload;
        } else {
            count = WS_MAX_PAYLOAD_READ;
        }
    }
    if (count != 0 && reader(connection, static_cast<int64_t>(count)) < 1) {
        Logger.trace("Client disconnected");
        call_disconnect(connection, on_disconnect);
        return 0;
    }
    const uint64_t length = DynamicBuffer.size(queue);
    if (length < descriptor->payload_length) {
        Logger.trace(
            "Not already received all data from websocket client. Will try at the next call");
        return 0;
    }
    Payload block = take_bytes(queue, length);
    if (block.bytes == nullptr) {
        Logger.fatal("Unable to allocate memory for a websocket payload");
        return -1;
    }
    apply_mask(block.bytes, length, header_key(descriptor->header));
    FrameOutcome outcome = settle_frame(connection, descriptor, std::move(block));
    descriptor->header_complete = false;
    // From here the descriptor may be freed by the callbacks.
    run_outcome(connection, outcome, on_disconnect, on_message);
    return outcome.result;
}

int read_frame(networkConnection* connection, websocketPeerDescriptor* descriptor,
               bool require_mask, WebSocketReadFunction read, DisconnectCallback on_disconnect,
               MessageCallback on_message) {
    return read_frame_bulk(connection, descriptor, require_mask, read, nullptr, on_disconnect,
                           on_message);
}

}  // namespace

uint8_t* websocket_build_frame(const uint8_t* payload, uint64_t length, uint8_t opcode, bool fin,
                               bool masked, uint64_t* frame_length) {
    if (payload == nullptr && length > 0) {
        return nullptr;
    }
    uint8_t header[WS_MAX_HEADER_SIZE] = {};
    if (masked) {
        header[1] |= kMaskBit;
        // The key's place follows the low byte of the length, not the length
        // code; it is read back below from where the receiver looks.
        const uint8_t low = static_cast<uint8_t>(length & 0xff);
        uint64_t key_at = 0;
        if (low < kLength16) {
            key_at = 2;
        } else if (low == kLength16) {
            key_at = 4;
        } else if (low == kLength64) {
            key_at = 10;
        } else {
            Logger.error("Error while computing websocket mask in frame");
        }
        if (key_at != 0) {
            const uint32_t key = static_cast<uint32_t>(Random.next()) % 0xffffffffu;
            const uint32_t wire = ByteOrder.host_to_network_32(key);
            memcpy(header + key_at, &wire, sizeof wire);
        }
    }
    if (fin) {
        header[0] |= kFinBit;
    }
    header[0] |= opcode & kOpcodeBits;
    header[1] &= kMaskBit;
    uint64_t header_size = 0;
    if (length < kLength16) {
        header[1] |= static_cast<uint8_t>(length);
        header_size = 2;
    } else if (length <= 0xffff) {
        header[1] |= kLength16;
        header[2] = static_cast<uint8_t>(length >> 8);
        header[3] = static_cast<uint8_t>(length);
        header_size = 4;
    } else {
        header[1] |= kLength64;
        const uint64_t wire = ByteOrder.host_to_network_64(length);
        memcpy(header + 2, &wire, sizeof wire);
        header_size = 10;
    }
    if (masked) {
        header_size += 4;
    }
    auto* frame = static_cast<uint8_t*>(malloc(header_size + length));
    if (frame == nullptr) {
        Logger.fatal("Unable to allocate memory for sending websocket buffer");
        return nullptr;
    }
    memcpy(frame, header, header_size);
    if (length > 0) {
        memcpy(frame + header_size, payload, length);
    }
    if (masked) {
        apply_mask(frame + header_size, length, header_key(header));
    }
    if (frame_length != nullptr) {
        *frame_length = header_size + length;
    }
    return frame;
}

const WebSocketModule WebSocket = {
    .compute_websocket_accept = compute_websocket_accept,
    .find_value_from_http_header = find_value_from_http_header,
    .read_frame = read_frame,
    .reset_frame_state = reset_frame_state,
    .create_peer_descriptor = create_peer_descriptor,
    .destroy_peer_descriptor = destroy_peer_descriptor,
    .send_data = send_data,
    .read_frame_bulk = read_frame_bulk,
    .send_text = send_text,
};
