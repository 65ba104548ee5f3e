// The client's framing state on one end of a socketpair: the read callback
// runs by hand, as the loop runs it while the socket is readable. One read
// takes up to 4096 bytes, so frames that arrive together must all be handed
// up from that one readable event: the socket will not signal them again.
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "websocket/websocket_client.h"
#include "ws_test_support.h"

namespace {

struct Arrival {
    const char* name;
    std::string first;   // written before the first readable event
    std::string second;  // written once the first write is taken
    std::vector<std::string> messages;
    bool close_on_first_message;  // the layer above closes from on_message
};
class FramingRead : public ::testing::TestWithParam<Arrival> {};

bool close_on_message = false;

void record_then_maybe_close(networkConnection* connection, const uint8_t* bytes, uint64_t length,
                             int binary) {
    record_message(connection, bytes, length, binary);
    if (close_on_message) {
        WebSocketClient.close_websocket_connection(connection);
    }
}

std::string text_frame(const std::string& payload) {
    std::string frame = "\x81";
    if (payload.size() < 126) {
        frame += static_cast<char>(payload.size());
    } else {
        frame += '\x7e';
        frame += static_cast<char>(payload.size() >> 8);
        frame += static_cast<char>(payload.size() & 0xff);
    }
    return frame + payload;
}

TEST_P(FramingRead, EveryMessageOfWhatArrivedTogetherIsHandedUpInOrder) {
    ASSERT_GE(Network.init(), NETWORK_OK);
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    Recorder record;
    recorder = &record;
    close_on_message = GetParam().close_on_first_message;
    const WebSocketCallbacks callbacks{record_connected, record_then_maybe_close,
                                       record_disconnect};
    networkConnectionConfig config{"127.0.0.1", 1, 0, -1, 0, &callbacks};
    networkConnection* connection = Network.create_connection(nullptr, &config, nullptr, nullptr);
    connection->socket = pair[0];
    connection->state = NETWORK_CONNECTED;
    connection->protocol_state = WebSocketClient.create_framing_state();
    websocketPeerDescriptor* descriptor = WebSocket.create_peer_descriptor();
    WebSocket.reset_frame_state(descriptor);
    Network.set_user_data(connection, descriptor);
    for (const std::string& part : {GetParam().first, GetParam().second}) {
        if (part.empty()) {
            continue;  // nothing readable: the loop would not call back
        }
        ASSERT_EQ(write(pair[1], part.data(), part.size()), static_cast<ssize_t>(part.size()));
        if (connection->protocol_state != nullptr) {
            connection->protocol_state->read_callback(pair[0], EV_READ, connection);
        }
    }
    std::vector<std::string> got;
    for (const Message& message : record.messages) {
        got.push_back(message.bytes);
    }
    EXPECT_EQ(got, GetParam().messages);
    EXPECT_EQ(Network.kept_ahead(connection), 0u);
    WebSocketClient.close_websocket_connection(connection);
    Network.destroy_connection(connection);
    close(pair[1]);
}

const std::string kLarge(5000, 'x');  // its payload goes past the first 4096-byte read

INSTANTIATE_TEST_SUITE_P(
    Arrivals, FramingRead,
    ::testing::Values(
        Arrival{
            "two_frames_one_read", text_frame("hi") + text_frame("abc"), "", {"hi", "abc"}, false},
        Arrival{"second_frame_split",
                text_frame("hi") + "\x81",
                "\x03"
                "abc",
                {"hi", "abc"},
                false},
        Arrival{"large_payload_after_a_small_frame",
                text_frame("hi") + text_frame(kLarge).substr(0, 4500),
                text_frame(kLarge).substr(4500),
                {"hi", kLarge},
                false},
        Arrival{
            "closed_by_the_first_message", text_frame("hi") + text_frame("abc"), "", {"hi"}, true}),
    [](const auto& row) { return std::string(row.param.name); });

}  // namespace
