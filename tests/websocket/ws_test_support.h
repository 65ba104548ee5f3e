// Test support: a recorder for the upper-layer callbacks and a socket-free
// connection whose `read` hands read_frame bytes from a script.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include "websocket/websocket.h"

inline std::vector<uint8_t> hex(const std::string& text) {  // "81 05" -> {0x81, 0x05}
    std::istringstream in(text);
    std::vector<uint8_t> bytes;
    for (unsigned value = 0; in >> std::hex >> value;) {
        bytes.push_back(static_cast<uint8_t>(value));
    }
    return bytes;
}

struct Message {
    std::string bytes;
    int is_binary;
    bool operator==(const Message&) const = default;
};

struct Recorder {
    int connected = 0;
    int disconnects = 0;
    std::vector<Message> messages;
};
inline Recorder* recorder = nullptr;  // where the callbacks below record
inline void record_connected(networkConnection*) {
    ++recorder->connected;
}
inline void record_disconnect(networkConnection*) {
    ++recorder->disconnects;
}
inline void record_message(networkConnection*, const uint8_t* bytes, uint64_t length, int binary) {
    recorder->messages.push_back({std::string(bytes, bytes + length), binary});
}

// write() makes bytes readable, then runs read_frame while some are left, as
// the level-triggered read event does. A drained script reads -1, like
// receive_data on a non-blocking socket.
struct ScriptedPeer {
    explicit ScriptedPeer(bool mask_required = false) : require_mask(mask_required) {
        connection.receive_queue = DynamicBuffer.create(1);
        connection.config = &config;
        WebSocket.reset_frame_state(descriptor);
    }
    ~ScriptedPeer() {
        WebSocket.destroy_peer_descriptor(descriptor);
        DynamicBuffer.free(connection.receive_queue);
    }
    static int64_t read(networkConnection* target, int64_t max_size) {
        EXPECT_LE(max_size, 4096) << "receive_data ends the process above 4096";
        const size_t count = std::min<size_t>(max_size, current->script.size() - current->taken);
        DynamicBuffer.append(target->receive_queue, current->script.data() + current->taken, count);
        current->taken += count;
        return count == 0 ? -1 : static_cast<int64_t>(count);
    }
    // receive_payload's stand-in: any size, but never the wrapped count of a
    // payload shorter than what is queued.
    static int64_t read_payload(networkConnection* target, int64_t max_size) {
        EXPECT_LE(static_cast<uint64_t>(max_size), WS_MAX_MESSAGE_SIZE);
        current->payload_reads.push_back(max_size);
        const size_t count = std::min<size_t>(max_size, current->script.size() - current->taken);
        DynamicBuffer.append(target->receive_queue, current->script.data() + current->taken, count);
        current->taken += count;
        return count == 0 ? -1 : static_cast<int64_t>(count);
    }
    // As the tool reads (read_frame_bulk), or with bulk false as read_frame.
    int read_frame_once() {
        current = this;
        recorder = &record;
        const int result =
            bulk ? WebSocket.read_frame_bulk(&connection, descriptor, require_mask, read,
                                             read_payload, record_disconnect, record_message)
                 : WebSocket.read_frame(&connection, descriptor, require_mask, read,
                                        record_disconnect, record_message);
        dropped = dropped || result < 0;
        return result;
    }
    void write(const std::vector<uint8_t>& bytes) {
        script.insert(script.end(), bytes.begin(), bytes.end());
        while (taken < script.size() && !dropped) {
            read_frame_once();
        }
    }

    inline static ScriptedPeer* current = nullptr;
    bool require_mask;
    bool bulk = true;
    std::vector<int64_t> payload_reads;  // sizes asked of read_payload
    bool dropped = false;
    Recorder record;
    std::vector<uint8_t> script;
    size_t taken = 0;
    networkConnectionConfig config{};
    networkConnection connection{};
    websocketPeerDescriptor* descriptor = WebSocket.create_peer_descriptor();
};
