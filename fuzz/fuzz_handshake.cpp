// The client's reading of the server's upgrade answer, through the real
// handshake read callback on a socket pair, and the header lookup on its own.
// First input byte: 0 to 127 feeds the answer path, 128 to 255 the lookup.
#include <fuzzer/FuzzedDataProvider.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "websocket/websocket.h"
#include "websocket/websocket_client.h"

namespace {

// Accept value of the RFC 6455 sample key, so the fuzzer can reach the
// success path by writing the right header.
constexpr char kAccept[] = "s3pPLMBiTxaQ9kYGzzhZRbK+xOo=";

void check_lookup(FuzzedDataProvider& input) {
    const std::string key = input.ConsumeRandomLengthString(600);
    std::string header = input.ConsumeRemainingBytesAsString();
    const uint64_t length = header.size();
    char* value = WebSocket.find_value_from_http_header(header.data(), length, key.c_str());
    if (value == nullptr) {
        return;
    }
    // A value lies inside the header and is a NUL-terminated token of it.
    if (value < header.data() || value >= header.data() + length) {
        __builtin_trap();
    }
    if (strlen(key.c_str()) >= 512 || strnlen(value, length) == length) {
        __builtin_trap();
    }
}

void check_answer(FuzzedDataProvider& input) {
    static bool ready = Network.init() >= 0;
    if (!ready) {
        return;
    }
    const std::string answer = input.ConsumeRemainingBytesAsString();
    int sockets[2] = {-1, -1};
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, sockets) != 0) {
        return;
    }
    // The whole answer is in the socket before the read, then the peer leaves.
    if (!answer.empty() && write(sockets[1], answer.data(), answer.size()) < 0) {
        __builtin_trap();
    }
    shutdown(sockets[1], SHUT_WR);

    networkConnectionConfig config{};
    config.ip = "127.0.0.1";
    config.port = 11038;
    config.reconnection_policy = -1;  // a lost connection is not retried
    networkConnection* connection = Network.create_connection(nullptr, &config, nullptr, nullptr);
    connection->socket = sockets[0];
    connection->protocol_state = WebSocketClient.create_websocket_client_handshake_state();
    websocketPeerDescriptor* descriptor = WebSocket.create_peer_descriptor();
    memcpy(descriptor->expected_accept, kAccept, sizeof kAccept);
    Network.set_user_data(connection, descriptor);

    connection->protocol_state->read_callback(sockets[0], EV_READ, connection);
    // On success the framing state reads what followed the answer.
    for (int i = 0; i < 8 && connection->protocol_state != nullptr &&
                    connection->protocol_state->read_callback != nullptr;
         ++i) {
        connection->protocol_state->read_callback(sockets[0], EV_READ, connection);
    }
    WebSocket.destroy_peer_descriptor(static_cast<websocketPeerDescriptor*>(connection->user_data));
    Network.destroy_connection(connection);
    close(sockets[0]);
    close(sockets[1]);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    if (input.ConsumeIntegral<uint8_t>() < 128) {
        check_answer(input);
    } else {
        check_lookup(input);
    }
    return 0;
}
