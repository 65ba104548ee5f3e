#include "network/network.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <tuple>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

// What one test observed; callbacks are plain functions, so they share this.
struct Observed {
    event_base* base = nullptr;
    std::vector<uint32_t> events;          // dispatcher events, in order
    std::vector<Clock::time_point> tries;  // time of each event 1
    std::vector<std::string> states;       // protocol-state callbacks
    uint32_t stop_on = 0;                  // dispatcher event ending the loop
    int peer = -1;                         // accepted socket, when kept
    event* peer_reader = nullptr;
    bool close_peers = false;
    std::string received;  // what the peer got
    size_t expected = 0;   // ends the loop once received
    int writes = 0;        // write callbacks that sent something
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
void setup_a(networkConnection*) {
    seen->states.push_back("setup a");
}
void unset_a(networkConnection*) {
    seen->states.push_back("unset a");
}
void setup_b(networkConnection*) {
    seen->states.push_back("setup b");
    ASSERT_EQ(write(seen->peer, "world", 5), 5);
}
void count_write(networkConnection*, int64_t sent) {
    seen->writes += sent > 0 ? 1 : 0;
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
        observed.base = base = CallbackEvent.new_event_base();
        dispatcher = CallbackEvent.create(base, DISPATCHER_EVENT_COUNT);
        for (uint32_t id = NET_EVENT_CONNECT_RESULT; id <= NET_EVENT_CLOSED; ++id) {
            CallbackEvent.subscribe(dispatcher, id, record);
        }
    }

    void TearDown() override {
        Network.destroy_connection(connection);
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
    networkConnectionConfig config{"127.0.0.1", 0, 0, 3, 0, nullptr, nullptr, nullptr};
    ProtocolState* initial = nullptr;
    networkConnection* connection = nullptr;
    int server = -1;
    event* acceptor = nullptr;
};

void check_then_close(networkConnection* connection) {
    EXPECT_NE(connection->read_event, nullptr) << "state set up before event 2";
    Network.graceful_close(connection);
}

TEST_F(NetworkTest, ConnectsSetsUpTheStateAndClosesGracefully) {
    observed.stop_on = NET_EVENT_CLOSED;
    observed.on_connected = check_then_close;
    start(true, 3, 0, Network.create_protocol_state(read_all, nullptr, setup_a, unset_a));
    EXPECT_EQ(Network.send(connection, "early", 5), -1) << "queued before connecting";
    run();
    EXPECT_EQ(observed.events, (std::vector<uint32_t>{1, 2, 5}));
    EXPECT_EQ(observed.states, (std::vector<std::string>{"setup a", "unset a"}));
    EXPECT_STREQ(Network.get_ip(connection), "127.0.0.1");
    EXPECT_EQ(Network.get_port(connection), config.port);
    EXPECT_EQ(connection->write_event, nullptr);
    EXPECT_EQ(connection->socket, 0);
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
    EXPECT_EQ(Network.send(connection, "late", 4), -1);
    for (size_t i = 1; i < observed.tries.size(); ++i) {
        EXPECT_GE(observed.tries[i] - observed.tries[i - 1],
                  std::chrono::milliseconds(900 * static_cast<int64_t>(delay)));
    }
}

INSTANTIATE_TEST_SUITE_P(Policies, RetryPolicyTest,
                         ::testing::Values(PolicyCase{3, 0, false, {1, 3, 1, 3, 1, 4}},
                                           PolicyCase{2, 1, false, {1, 3, 1, 4}},
                                           PolicyCase{1, 0, false, {1, 4}},
                                           PolicyCase{-1, 0, false, {1, 4}},
                                           PolicyCase{2, 0, true, {1, 2, 3, 1, 2, 4}}));

void forget_retry(uint32_t id, void* connection) {
    if (id == NET_EVENT_RECONNECTING) {
        Network.clean_retry_event(static_cast<networkConnection*>(connection));
    }
}

TEST_F(NetworkTest, PolicyZeroRetriesUntilTheTimerIsCleaned) {
    CallbackEvent.subscribe(dispatcher, NET_EVENT_RECONNECTING, forget_retry);
    start(false, 0, 1, nullptr);
    run(1300);
    EXPECT_EQ(observed.events, (std::vector<uint32_t>{1, 3}));
    EXPECT_EQ(connection->retry_event, nullptr);
}

void send_payload(networkConnection* connection) {
    const int small = 16384;  // forces the queue to drain over several sends
    setsockopt(connection->socket, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    std::string payload(seen->expected, '\0');
    for (size_t i = 0; i < payload.size(); ++i) {
        payload[i] = static_cast<char>(i * 7 % 251);
    }
    EXPECT_EQ(Network.send(connection, payload.data(), 1000), 0);
    EXPECT_EQ(Network.send(connection, payload.data() + 1000, payload.size() - 1000), 0);
    EXPECT_TRUE(event_pending(connection->write_event, EV_WRITE, nullptr));
}

TEST_F(NetworkTest, QueuedBytesArriveWholeAndInOrder) {
    observed.expected = 1 << 20;
    observed.on_connected = send_payload;
    start(true, 3, 0, Network.create_protocol_state(nullptr, count_write, nullptr, nullptr));
    run();
    ASSERT_EQ(observed.received.size(), observed.expected);
    for (size_t i = 0; i < observed.received.size(); ++i) {
        ASSERT_EQ(observed.received[i], static_cast<char>(i * 7 % 251)) << "byte " << i;
    }
    EXPECT_GT(observed.writes, 1) << "the payload should need several send() calls";
    EXPECT_FALSE(event_pending(connection->write_event, EV_WRITE, nullptr)) << "not drained";
    observed.expected += 4;
    EXPECT_EQ(Network.send(connection, "tail", 4), 0);
    EXPECT_TRUE(event_pending(connection->write_event, EV_WRITE, nullptr));
    run();
    EXPECT_EQ(observed.received.substr(observed.expected - 4), "tail");
}

void read_until_ten(evutil_socket_t fd, short what, void* connection) {
    read_all(fd, what, connection);
    if (DynamicBuffer.size(static_cast<networkConnection*>(connection)->receive_queue) >= 10) {
        event_base_loopexit(seen->base, nullptr);
    }
}

// First state: once "hello" is queued, hand over to a state that expects more.
void read_then_switch(evutil_socket_t, short, void* argument) {
    auto* connection = static_cast<networkConnection*>(argument);
    Network.receive_data(connection, 5);
    if (DynamicBuffer.size(connection->receive_queue) == 5) {
        Network.switch_protocol_state(
            connection, Network.create_protocol_state(read_until_ten, nullptr, setup_b, nullptr));
    }
}

TEST_F(NetworkTest, SwitchKeepsReceivedBytes) {
    observed.stop_on = NET_EVENT_CONNECTED;
    start(true, 3, 0, Network.create_protocol_state(read_then_switch, nullptr, setup_a, unset_a));
    run();
    for (int pass = 0; observed.peer < 0 && pass < 100; ++pass) {
        event_base_loop(base, EVLOOP_ONCE);
    }
    ASSERT_EQ(write(observed.peer, "hello", 5), 5);
    run();  // the second state stops the loop once it holds ten bytes
    std::string queued(DynamicBuffer.size(connection->receive_queue), '\0');
    DynamicBuffer.peek(connection->receive_queue, queued.data(), queued.size());
    EXPECT_EQ(queued, "helloworld");
    EXPECT_EQ(observed.states, (std::vector<std::string>{"setup a", "unset a", "setup b"}));

    ProtocolState* current = connection->protocol_state;
    Network.switch_protocol_state(connection, nullptr);
    EXPECT_EQ(connection->protocol_state, current);
    Network.switch_protocol_state(
        connection, Network.create_protocol_state(nullptr, nullptr, nullptr, nullptr));
    EXPECT_EQ(connection->read_event, nullptr);
}

// Runs in the death-test child: its own base, a connection, an oversized read.
void receive_too_much() {
    Network.init();
    event_base* base = CallbackEvent.new_event_base();
    networkConnectionConfig config{"127.0.0.1", 1, 0, 1, 0, nullptr, nullptr, nullptr};
    networkConnection* connection = Network.create_connection(nullptr, &config, base, nullptr);
    Network.receive_data(connection, NETWORK_RECEIVE_MAX + 1);
}

TEST(NetworkDeathTest, ReceiveAboveTheMaximumEndsTheProcess) {
    EXPECT_EXIT(receive_too_much(), ::testing::ExitedWithCode(1), "");
}

}  // namespace
