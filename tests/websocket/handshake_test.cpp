// The client handshake's answer check, on one end of a socketpair: the read
// callback runs by hand, as the loop would run it once the answer is there.
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include "websocket/websocket_client.h"
#include "ws_test_support.h"

namespace {

struct Answer {
    const char* name;
    const char* accept_header;  // before the right accept value
    size_t cut;                 // bytes held back for a second read
    bool switched;
};
class HandshakeAnswer : public ::testing::TestWithParam<Answer> {};

TEST_P(HandshakeAnswer, SwitchesToFramingOnlyOnTheSolvedChallengeInOneRead) {
    ASSERT_GE(Network.init(), NETWORK_OK);
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    Recorder record;
    recorder = &record;
    const WebSocketCallbacks callbacks{record_connected, record_message, record_disconnect};
    networkConnectionConfig config{"127.0.0.1", 1, 0, -1, 0, &callbacks};
    networkConnection* connection = Network.create_connection(nullptr, &config, nullptr, nullptr);
    connection->socket = pair[0];
    connection->protocol_state = WebSocketClient.create_websocket_client_handshake_state();
    websocketPeerDescriptor* descriptor = WebSocket.create_peer_descriptor();
    strcpy(descriptor->expected_accept, "s3pPLMBiTxaQ9kYGzzhZRbK+xOo=");  // RFC 6455 example
    Network.set_user_data(connection, descriptor);
    // A frame right behind the answer belongs to no message: it is dropped.
    const std::string answer = std::string("HTTP/1.1 101 Switching Protocols\r\n") +
                               GetParam().accept_header + "s3pPLMBiTxaQ9kYGzzhZRbK+xOo=\r\n\r\n" +
                               "\x81\x01\x41";
    const size_t sent = answer.size() - GetParam().cut;
    ASSERT_EQ(write(pair[1], answer.data(), sent), static_cast<ssize_t>(sent));
    connection->protocol_state->read_callback(pair[0], EV_READ, connection);
    EXPECT_EQ(record.connected, GetParam().switched ? 1 : 0);
    EXPECT_EQ(connection->user_data != nullptr, GetParam().switched);
    EXPECT_EQ(connection->protocol_state != nullptr, GetParam().switched);
    EXPECT_EQ(DynamicBuffer.size(connection->receive_queue) == 0, GetParam().switched);
    WebSocketClient.close_websocket_connection(connection);
    Network.destroy_connection(connection);
    close(pair[0]);
    close(pair[1]);
}

INSTANTIATE_TEST_SUITE_P(
    Answers, HandshakeAnswer,
    ::testing::Values(Answer{"solved", "Sec-WebSocket-Accept: ", 0, true},
                      Answer{"solved_in_two_reads", "Sec-WebSocket-Accept: ", 5, false},
                      Answer{"wrong_value", "Sec-WebSocket-Accept: x", 0, false},
                      Answer{"longer_header_name", "Sec-WebSocket-Accept-Extra: ", 0, false},
                      Answer{"lower_case_header", "sec-websocket-accept: ", 0, false}),
    [](const auto& row) { return std::string(row.param.name); });

}  // namespace
