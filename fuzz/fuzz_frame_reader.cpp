// Frame reader fed an arbitrary byte stream cut into arbitrary chunks: each
// call of the stand-in `read` hands over (part of) the next chunk, as one
// recv() would. The frame reader must never read outside what it was given,
// deliver more than it received, ask for more than receive_data allows
// (receive_payload: more than a frame may hold), or leak, whatever the peer
// sends.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <cstdlib>
#include <vector>

#include "core/dynamic_buffer.h"
#include "websocket/websocket.h"

namespace {

struct Feed {
    std::vector<std::vector<uint8_t>> chunks;
    size_t chunk = 0;
    size_t offset = 0;
    uint64_t fed = 0;
    uint64_t delivered = 0;
    bool closed = false;
    bool disconnected = false;
};

Feed* feed = nullptr;

int64_t feed_bytes(networkConnection* connection, int64_t max_size);

// Same contract as Network.receive_data on a socket holding the chunks.
int64_t fake_read(networkConnection* connection, int64_t max_size) {
    if (max_size > NETWORK_RECEIVE_MAX) {
        __builtin_trap();  // the real one ends the process here
    }
    return feed_bytes(connection, max_size);
}

// Network.receive_payload's: any size, but never past a frame's bound (the
// wrapped count of a short payload goes through fake_read).
int64_t fake_payload_read(networkConnection* connection, int64_t max_size) {
    if (static_cast<uint64_t>(max_size) > WS_MAX_MESSAGE_SIZE) {
        __builtin_trap();
    }
    return feed_bytes(connection, max_size);
}

// One recv() of at most max_size bytes from the chunks.
int64_t feed_bytes(networkConnection* connection, int64_t max_size) {
    if (max_size < 0) {
        return -2;
    }
    if (max_size == 0 || feed->chunk == feed->chunks.size()) {
        feed->closed = true;  // recv() returned 0
        return -1;
    }
    const std::vector<uint8_t>& chunk = feed->chunks[feed->chunk];
    const size_t count =
        std::min<size_t>(static_cast<size_t>(max_size), chunk.size() - feed->offset);
    DynamicBuffer.append(connection->receive_queue, chunk.data() + feed->offset, count);
    feed->offset += count;
    feed->fed += count;
    if (feed->offset == chunk.size()) {
        ++feed->chunk;
        feed->offset = 0;
    }
    return static_cast<int64_t>(count);
}

void on_message(networkConnection* /*connection*/, const uint8_t* bytes, uint64_t length,
                int is_binary) {
    if (is_binary != 0 && is_binary != 1) {
        __builtin_trap();
    }
    // Reassembled messages are cleared once delivered: all deliveries
    // together never exceed what the peer sent.
    feed->delivered += length;
    if (feed->delivered > feed->fed) {
        __builtin_trap();
    }
    volatile uint8_t sum = 0;
    for (uint64_t i = 0; i < length; ++i) {
        sum = sum + bytes[i];  // every byte must be readable
    }
}

void on_disconnect(networkConnection* /*connection*/) {
    feed->disconnected = true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    Feed state;
    feed = &state;
    const bool require_mask = input.ConsumeBool();
    const bool bulk = input.ConsumeBool();  // the tool's read_frame_bulk, or read_frame
    while (input.remaining_bytes() > 0) {
        const size_t length = input.ConsumeIntegralInRange<size_t>(1, 300);
        std::vector<uint8_t> chunk = input.ConsumeBytes<uint8_t>(length);
        if (!chunk.empty()) {
            state.chunks.push_back(std::move(chunk));
        }
    }

    networkConnection connection{};
    connection.receive_queue = DynamicBuffer.create(1);
    websocketPeerDescriptor* descriptor = WebSocket.create_peer_descriptor();
    WebSocket.reset_frame_state(descriptor);
    // Each call is one readable event; every call takes at least one byte
    // while the peer has some, so this bound is never the one that stops.
    for (size_t calls = 0; calls <= size + 2; ++calls) {
        const int result =
            bulk ? WebSocket.read_frame_bulk(&connection, descriptor, require_mask, fake_read,
                                             fake_payload_read, on_disconnect, on_message)
                 : WebSocket.read_frame(&connection, descriptor, require_mask, fake_read,
                                        on_disconnect, on_message);
        if (result < 0 || state.closed || state.disconnected) {
            break;
        }
    }
    WebSocket.destroy_peer_descriptor(descriptor);
    DynamicBuffer.free(connection.receive_queue);
    feed = nullptr;
    return 0;
}
