#include "network/network.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <string>
#include <tuple>
#include <vector>

// socket() and send() failures on demand (the binary links with --wrap).
int socket_error = 0;
int send_error = 0;
int failed_sends = 0;
int sends = 0;  // non-empty send() calls, failed or not
extern "C" int __real_socket(int domain, int type, int protocol);
extern "C" ssize_t __real_send(int fd, const void* bytes, size_t count, int flags);
extern "C" int __wrap_socket(int domain, int type, int protocol) {
    errno = socket_error;
    return socket_error != 0 ? -1 : __real_socket(domain, type, protocol);
}
extern "C" ssize_t __wrap_send(int fd, const void* bytes, size_t count, int flags) {
    sends += count > 0 ? 1 : 0;
    if (send_error == 0 || count == 0) {
        return __real_send(fd, bytes, count, flags);
    }
    ++failed_sends;
    errno = send_error;
    if (send_error == EAGAIN) {
        send_error = 0;  // a full socket: the next try goes through
    }
    return -1;
}

namespace {

using Clock = std::chrono::steady_clock;

// What one test observed; callbacks are plain functions, so they share this.
struct Observed {
    event_base* base = nullptr;
    std::vector<uint32_t> events;          // dispatcher events, in order
    std::vector<Clock::time_point> tries;  // time of each event 1
    uint32_t stop_on = 0;                  // dispatcher event ending the loop
    int peer = -1;                         // accepted socket, when kept
    event* peer_reader = nullptr;
    bool close_peers = false;
    std::string received;  // what the peer got
    size_t expected = 0;   // ends the loop once received
    void (*on_connected)(networkConnection*) = nullptr;
};
Observed* seen = nullptr;

void record(uint32_t id, void* connection) {
    seen->events.push_back(id);
    if (id == NET_EVENT_CONNECT_RESULT) {
        seen->tries.push_back(Clock::now());
    }
    if (id == NET_EVENT_CONNECTED && seen->on_connected != nullptr) {
        seen->on_connected(static_cast<networkConnection*>(connection));
    }
    if (id == seen->stop_on) {
        event_base_loopexit(seen->base, nullptr);
    }
}

void read_all(evutil_socket_t, short, void* connection) {
    Network.receive_data(static_cast<networkConnection*>(connection), NETWORK_RECEIVE_MAX);
}

void peer_readable(evutil_socket_t fd, short, void*) {
    char chunk[65536];
    const ssize_t count = read(fd, chunk, sizeof chunk);
    if (count > 0) {
        seen->received.append(chunk, static_cast<size_t>(count));
    }
    if (count <= 0 || seen->received.size() >= seen->expected) {
        event_base_loopexit(seen->base, nullptr);
    }
}

void accept_peer(evutil_socket_t listener, short, void*) {
    const int fd = accept(listener, nullptr, nullptr);
    if (seen->close_peers) {
        close(fd);
        return;
    }
    seen->peer = fd;
    seen->peer_reader = event_new(seen->base, fd, EV_READ | EV_PERSIST, peer_readable, nullptr);
    event_add(seen->peer_reader, nullptr);
}

class NetworkTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { Network.init(); }

    void SetUp() override {
        seen = &observed;
        socket_error = send_error = failed_sends = sends = 0;
        observed.base = base = CallbackEvent.new_event_base();
        dispatcher = CallbackEvent.create(base, DISPATCHER_EVENT_COUNT);
        for (uint32_t id = NET_EVENT_CONNECT_RESULT; id <= NET_EVENT_CLOSED; ++id) {
            CallbackEvent.subscribe(dispatcher, id, record);
        }
    }

    void TearDown() override {
        Network.destroy_connection(connection);  // the test is the connection's only owner
        Network.free_protocol_state(initial);
        if (acceptor != nullptr) {
            event_free(acceptor);
        }
        if (observed.peer_reader != nullptr) {
            event_free(observed.peer_reader);
            close(observed.peer);
        }
        close(server);
        // Let leftover deliveries run (and free themselves) before the base goes.
        for (int pass = 0;
             pass < 100 && event_base_get_num_events(base, EVENT_BASE_COUNT_ADDED) > 0; ++pass) {
            event_base_loop(base, EVLOOP_NONBLOCK);
        }
        CallbackEvent.destroy(dispatcher);
        event_base_free(base);
    }

    // Connects to a listener (or a refusing port) with the given state.
    void start(bool listening, int32_t policy, uint64_t delay, ProtocolState* state) {
        server = socket(AF_INET, SOCK_STREAM, 0);  // loopback, ephemeral port
        sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
        socklen_t length = sizeof address;
        bind(server, reinterpret_cast<sockaddr*>(&address), length);
        getsockname(server, reinterpret_cast<sockaddr*>(&address), &length);
        config.port = ntohs(address.sin_port);
        config.reconnection_policy = policy;
        config.retry_delay = delay;
        initial = state;
        connection = Network.create_connection(initial, &config, base, dispatcher);
        ASSERT_NE(connection, nullptr);
        EXPECT_EQ(connection->state, NETWORK_IDLE);
        if (listening) {  // otherwise the bound port refuses connections
            listen(server, 8);
            acceptor = event_new(base, server, EV_READ | EV_PERSIST, accept_peer, nullptr);
            event_add(acceptor, nullptr);
        }
        Network.perform_connection(connection);
    }

    // Runs the loop; a guard ends it if the test's own stop never comes.
    void run(int64_t guard_ms = 3000) {
        auto stop = [](evutil_socket_t, short, void* loop) {
            event_base_loopexit(static_cast<event_base*>(loop), nullptr);
        };
        event* guard = CallbackEvent.set_timer(base, stop, base, guard_ms / 1000,
                                               (guard_ms % 1000) * 1000, false);
        event_base_dispatch(base);
        event_free(guard);
    }

    Observed observed;
    event_base* base = nullptr;
    EventDispatcher* dispatcher = nullptr;
    networkConnectionConfig config{"127.0.0.1", 0, 0, 3, 0, nullptr};
    ProtocolState* initial = nullptr;
    networkConnection* connection = nullptr;
    int server = -1;
    event* acceptor = nullptr;
};

void check_then_close(networkConnection* connection) {
    EXPECT_EQ(connection->state, NETWORK_CONNECTED);
    EXPECT_NE(connection->read_event, nullptr) << "state set up before event 2";
    Network.graceful_close(connection);
}

TEST_F(NetworkTest, ConnectsSetsUpTheStateAndClosesGracefully) {
    observed.stop_on = NET_EVENT_CLOSED;
    observed.on_connected = check_then_close;
    start(true, 3, 0, Network.create_protocol_state(read_all, nullptr, nullptr, nullptr));
    EXPECT_EQ(connection->state, NETWORK_CONNECTING);
    EXPECT_EQ(Network.send(connection, "early", 5), NETWORK_ERR_FAILED) << "queued early";
    run();
    EXPECT_EQ(observed.events, (std::vector<uint32_t>{1, 2, 5}));
    EXPECT_EQ(connection->state, NETWORK_CLOSED);
    EXPECT_EQ(connection->socket, -1);
}

// (policy, retry delay in seconds, whether a listener accepts then hangs up
// rather than refusing, dispatcher events expected).
using PolicyCase = std::tuple<int32_t, uint64_t, bool, std::vector<uint32_t>>;
class RetryPolicyTest : public NetworkTest, public ::testing::WithParamInterface<PolicyCase> {};

TEST_P(RetryPolicyTest, AttemptsThenGivesUp) {
    const auto& [policy, delay, hang_up, expected] = GetParam();
    observed.stop_on = NET_EVENT_CONNECTION_FAILED;
    observed.close_peers = hang_up;
    start(hang_up, policy, delay,
          Network.create_protocol_state(read_all, nullptr, nullptr, nullptr));
    run();
    EXPECT_EQ(observed.events, expected);
    EXPECT_EQ(connection->remaining_attempts, 0);
    EXPECT_EQ(connection->retry_event, nullptr);
    EXPECT_EQ(connection->state, NETWORK_CLOSED);
    EXPECT_EQ(Network.send(connection, "late", 4), NETWORK_ERR_FAILED);
    for (size_t i = 1; i < observed.tries.size(); ++i) {
        EXPECT_GE(observed.tries[i] - observed.tries[i - 1],
                  std::chrono::milliseconds(900 * static_cast<int64_t>(delay)));
    }
}

INSTANTIATE_TEST_SUITE_P(Policies, RetryPolicyTest,
                         ::testing::Values(PolicyCase{3, 0, false, {1, 3, 1, 3, 1, 4}},
                                           PolicyCase{2, 1, false, {1, 3, 1, 4}},
                                           PolicyCase{-1, 0, false, {1, 4}},
                                           PolicyCase{2, 0, true, {1, 2, 3, 1, 2, 4}}));

// No socket for the attempt: the retry policy runs as for a refused one,
// and the connection stays the caller's (TearDown frees it, once).
TEST_F(NetworkTest, AttemptWithoutSocketGoesThroughTheRetryPolicy) {
    observed.stop_on = NET_EVENT_CONNECTION_FAILED;
    config.ip = "127.0.0.1";
    connection = Network.create_connection(nullptr, &config, base, dispatcher);
    config.reconnection_policy = connection->remaining_attempts = 2;
    socket_error = EMFILE;
    Network.perform_connection(connection);
    run();
    EXPECT_EQ(observed.events, (std::vector<uint32_t>{3, 4}));
    EXPECT_EQ(connection->socket, -1);
}

void send_payload(networkConnection* connection) {
    const int small = 16384;  // forces the queue to drain over several sends
    setsockopt(connection->socket, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    std::string payload(seen->expected, '\0');
    for (size_t i = 0; i < payload.size(); ++i) {
        payload[i] = static_cast<char>(i * 7 % 251);
    }
    EXPECT_EQ(Network.send(connection, payload.data(), 1000), NETWORK_OK);
    EXPECT_EQ(Network.send(connection, payload.data() + 1000, payload.size() - 1000), NETWORK_OK);
    EXPECT_TRUE(event_pending(connection->write_event, EV_WRITE, nullptr));
}

TEST_F(NetworkTest, QueuedBytesArriveWholeAndInOrder) {
    observed.expected = 1 << 20;
    observed.on_connected = send_payload;
    start(true, 3, 0, Network.create_protocol_state(nullptr, nullptr, nullptr, nullptr));
    run();
    ASSERT_EQ(observed.received.size(), observed.expected);
    for (size_t i = 0; i < observed.received.size(); ++i) {
        ASSERT_EQ(observed.received[i], static_cast<char>(i * 7 % 251)) << "byte " << i;
    }
    EXPECT_FALSE(event_pending(connection->write_event, EV_WRITE, nullptr)) << "not drained";
    observed.expected += 4;
    EXPECT_EQ(Network.send(connection, "tail", 4), NETWORK_OK);
    run();
    EXPECT_EQ(observed.received.substr(observed.expected - 4), "tail");
}

void send_into_full_socket(networkConnection* connection) {
    send_error = EAGAIN;
    EXPECT_EQ(Network.send(connection, "first ", 6), NETWORK_OK);
    EXPECT_EQ(Network.send(connection, "second", 6), NETWORK_OK);
}

// A send refused for want of room keeps the bytes, in order, for the next
// writable event; what one callback queues leaves in one send().
TEST_F(NetworkTest, RefusedSendKeepsTheBytesForTheNextWritableEvent) {
    observed.expected = 12;
    observed.on_connected = send_into_full_socket;
    start(true, 3, 0, Network.create_protocol_state(nullptr, nullptr, nullptr, nullptr));
    run();
    EXPECT_EQ(observed.received, "first second");
    EXPECT_EQ(failed_sends, 1);
    EXPECT_EQ(sends, 2) << "the refused send, then both blocks at once";
    EXPECT_EQ(connection->state, NETWORK_CONNECTED);
}

void send_into_dead_socket(networkConnection* connection) {
    send_error = EPIPE;
    EXPECT_EQ(Network.send(connection, "lost", 4), NETWORK_OK);
}

// A dead socket stays writable: the connection is dropped and retried
// rather than left with queued bytes and no writer, or spinning.
TEST_F(NetworkTest, HardSendErrorDropsTheConnectionThroughTheRetryPolicy) {
    observed.stop_on = NET_EVENT_CONNECTION_FAILED;
    observed.on_connected = send_into_dead_socket;
    start(true, 1, 0, Network.create_protocol_state(nullptr, nullptr, nullptr, nullptr));
    run();
    EXPECT_EQ(observed.events, (std::vector<uint32_t>{1, 2, 4}));
    EXPECT_EQ(failed_sends, 1);
    EXPECT_EQ(connection->state, NETWORK_CLOSED);
}

// The log lines name the peer with get_ip, whose own digits must read as
// inet_ntoa's: one, two and three-digit octets, zeros inside and at the ends.
TEST(NetworkAddressTest, NamedAsInetNtoaNamesIt) {
    for (const char* address :
         {"127.0.0.1", "0.0.0.0", "255.255.255.255", "10.100.9.200", "192.168.1.10", "1.20.0.99"}) {
        networkConnection connection{};
        connection.address.sin_addr.s_addr = inet_addr(address);
        EXPECT_STREQ(Network.get_ip(&connection), inet_ntoa(connection.address.sin_addr))
            << address;
    }
}

// Runs in the death-test child: its own base, a connection, an oversized read.
void receive_too_much() {
    Network.init();
    networkConnectionConfig config{"127.0.0.1", 1, 0, 1, 0, nullptr};
    networkConnection* connection = Network.create_connection(nullptr, &config, nullptr, nullptr);
    Network.receive_data(connection, NETWORK_RECEIVE_MAX + 1);
}

TEST(NetworkDeathTest, ReceiveAboveTheMaximumEndsTheProcess) {
    EXPECT_EXIT(receive_too_much(), ::testing::ExitedWithCode(1), "");
}

}  // namespace
