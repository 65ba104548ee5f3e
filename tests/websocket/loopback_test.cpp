// The client on a real loopback connection against a peer written with plain
// sockets: handshake, frames in pieces, ping, close, and what it sends.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <chrono>
#include <functional>

#include "websocket/crypto.h"
#include "websocket/websocket_client.h"
#include "ws_test_support.h"

namespace {

constexpr char kRequest[] =
    "GET / HTTP/1.1\r\nUpgrade: websocket\r\nConnection: Upgrade\r\nSec-WebSocket-Key: ";
constexpr size_t kRequestSize = sizeof kRequest - 1 + 24 + 4;  // 24-character key, blank line

class Loopback : public ::testing::Test {
protected:
    void SetUp() override {
        if (!Network.is_initialized()) {
            ASSERT_EQ(Network.init(), 0);
        }
        sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
        socklen_t size = sizeof address;
        listener_ = socket(AF_INET, SOCK_STREAM, 0);
        ASSERT_EQ(bind(listener_, reinterpret_cast<sockaddr*>(&address), size), 0);
        listen(listener_, 1);
        getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size);
        config_ = {"127.0.0.1", ntohs(address.sin_port), 0, -1, 0, nullptr, nullptr, nullptr};
        WebSocketClient.set_callbacks(&config_, record_connected, record_message,
                                      record_disconnect);
        recorder = &record_;
        connection_ = Network.create_connection(handshake_, &config_, nullptr, nullptr);
        ASSERT_NE(connection_, nullptr);
        Network.perform_connection(connection_);
        pollfd entry{listener_, POLLIN, 0};
        ASSERT_EQ(poll(&entry, 1, 2000), 1);
        peer_ = accept(listener_, nullptr, nullptr);
    }

    void TearDown() override {
        WebSocketClient.close_websocket_connection(connection_);
        Network.destroy_connection(connection_);
        Network.free_protocol_state(handshake_);
        close(peer_);
        close(listener_);
    }

    // Runs ready events until `done`, for at most `ms`.
    void pump(const std::function<bool()>& done, int ms = 2000) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
        while (!done() && std::chrono::steady_clock::now() < end) {
            event_base_loop(Network.get_event_base(), EVLOOP_NONBLOCK);
            pollfd sockets[2] = {{peer_, POLLIN, 0}, {connection_->socket, POLLIN, 0}};
            poll(sockets, connection_->socket > 0 ? 2 : 1, 1);
        }
    }

    bool drain() {  // true once the client has read all the peer wrote
        int unread = 0;
        const auto done = [&] {
            return connection_->socket > 0 && ioctl(connection_->socket, FIONREAD, &unread) == 0 &&
                   unread == 0;
        };
        pump(done, 500);
        pump([] { return false; }, 1);
        return done();
    }

    std::string peer_read(size_t wanted) {
        std::string bytes;
        pump([&] {
            char chunk[4096];
            pollfd entry{peer_, POLLIN, 0};
            while (!peer_closed_ && poll(&entry, 1, 0) > 0) {
                const ssize_t got = recv(peer_, chunk, sizeof chunk, 0);
                peer_closed_ = got <= 0;
                bytes.append(chunk, std::max<ssize_t>(got, 0));
            }
            return peer_closed_ || bytes.size() >= wanted;
        });
        return bytes;
    }

    void peer_write(const std::string& bytes) {
        send(peer_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    }

    // Checks the upgrade request and builds the answer, with the accept value
    // computed here from the key under `accept_header`.
    std::string answer(const std::string& accept_header = "Sec-WebSocket-Accept: ") {
        const std::string request = peer_read(kRequestSize);
        EXPECT_EQ(request.size(), kRequestSize);
        EXPECT_EQ(request.rfind(kRequest, 0), 0u) << request;
        EXPECT_EQ(request.substr(request.size() - 4), "\r\n\r\n");
        const std::string text =
            request.substr(sizeof kRequest - 1, 24) + "258EAFA5-E914-47DA-95CA-C5AB0DC85B11";
        uint8_t digest[20];
        Crypto.sha1_compute(reinterpret_cast<const uint8_t*>(text.data()), text.size(), digest);
        char* accept = Crypto.base64_encode(digest, sizeof digest, nullptr);
        const std::string response = "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\n" +
                                     accept_header + accept + "\r\n\r\n";
        free(accept);
        return response;
    }

    void connect_websocket(const std::string& extra = "") {
        peer_write(answer() + extra);
        pump([this] { return record_.connected > 0; });
        ASSERT_EQ(record_.connected, 1);
    }

    int listener_ = -1;
    int peer_ = -1;
    bool peer_closed_ = false;
    networkConnectionConfig config_{};
    ProtocolState* handshake_ = WebSocketClient.create_websocket_client_handshake_state();
    networkConnection* connection_ = nullptr;
    Recorder record_;
};

class BadAnswer : public Loopback, public ::testing::WithParamInterface<const char*> {};

TEST_P(BadAnswer, ClosesWithoutSwitching) {
    const bool split = std::string(GetParam()).empty();  // solved, but in two writes
    const std::string reply = answer(split ? "Sec-WebSocket-Accept: " : GetParam());
    const size_t first = split ? reply.size() - 2 : reply.size();  // all but the blank line
    peer_write(reply.substr(0, first));
    peer_read(1);
    peer_write(reply.substr(first));
    pump([] { return false; }, 20);
    EXPECT_TRUE(peer_closed_);
    EXPECT_EQ(record_.connected, 0);
    EXPECT_EQ(connection_->user_data, nullptr);
    EXPECT_EQ(connection_->protocol_state, nullptr);
}

INSTANTIATE_TEST_SUITE_P(Answers, BadAnswer,
                         ::testing::Values("", "Sec-WebSocket-Accept: x",
                                           "Sec-WebSocket-Accept-Extra: ",
                                           "sec-websocket-accept: "));

TEST_F(Loopback, FramesInPiecesThenPingThenClose) {
    connect_websocket("\x81\x01\x41");  // came with the answer: dropped
    ASSERT_EQ(DynamicBuffer.size(connection_->receive_queue), 0u);
    const auto head =
        hex("01 03 48 65 6c 80 02 6c 6f 81 85 37 fa 21 3d 7f 9f 4d 51 58 82 7e 01 00");
    const std::string stream = std::string(head.begin(), head.end()) + std::string(256, 'b');
    std::vector<Message> expected;
    for (size_t piece : {size_t{1}, size_t{3}, size_t{7}, stream.size()}) {
        for (size_t at = 0; at < stream.size(); at += piece) {
            peer_write(stream.substr(at, piece));
            ASSERT_TRUE(drain()) << "piece " << piece << " at " << at;
        }
        expected.insert(expected.end(), {{"Hello", 0}, {"Hello", 0}, {std::string(256, 'b'), 1}});
    }
    EXPECT_EQ(record_.messages, expected);
    // Longer than the 2 bytes the 4-byte header read takes after the 256-byte
    // frame: a payload that came whole with its header waits for more bytes.
    peer_write("\x89\x05Hello");
    EXPECT_EQ(peer_read(4), "\x8a\x02{}");  // unmasked, and not the ping's payload
    peer_write(std::string("\x88\x00", 2));
    EXPECT_EQ(peer_read(1), "");  // closed with no close frame back
    EXPECT_TRUE(peer_closed_);
    EXPECT_EQ(record_.disconnects, 1);
}

TEST_F(Loopback, SentFramesAreMaskedAndParse) {
    connect_websocket();
    for (size_t text_size : {125, 126, 127, 200, 300}) {  // every key placement
        const std::string text = "{\"k\":\"" + std::string(text_size - 8, 'v') + "\"}";
        ASSERT_EQ(WebSocketClient.send(connection_, json_parse(text.c_str())), 0);
        const std::string frame = peer_read((text_size < 126 ? 6 : 8) + text_size);
        ASSERT_EQ(frame.size(), (text_size < 126 ? 6 : 8) + text_size);
        EXPECT_EQ(frame.substr(0, 2), text_size < 126 ? "\x81\xfd" : "\x81\xfe");
        ScriptedPeer reader;
        reader.write({frame.begin(), frame.end()});
        EXPECT_EQ(reader.record.messages, (std::vector<Message>{{text, 0}}));
        recorder = &record_;
    }
}

}  // namespace
