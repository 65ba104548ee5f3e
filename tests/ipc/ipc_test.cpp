// The IPC config, and the client against a scripted Transfer Agent on a
// loopback ephemeral port. The peer runs on its own thread with blocking
// sockets and frames messages itself, apart from lib/websocket, so that one
// mistake cannot hide in both ends. Every wait is bounded: socket waits by
// poll, the loop by a guard.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "core/logger.h"
#include "ipc/ipc_client.h"
#include "websocket/crypto.h"
#include "websocket/websocket_client.h"

namespace {

using nlohmann::json;

// What the library logged during one test: the logger writes, at trace level,
// into a temporary folder removed when the test process ends.
class LogTail {
public:
    // Starts the process's logger on first use; remembers where this test begins.
    LogTail() : start_(read_all().size()) {}
    std::string text() const { return read_all().substr(start_); }
    bool contains(const std::string& message) const {
        return text().find(message) != std::string::npos;
    }

private:
    struct Folder {
        std::filesystem::path path;
        Folder() {
            char pattern[] = "/tmp/sylv-ipc-XXXXXX";
            if (mkdtemp(pattern) != nullptr) {
                path = pattern;
                Logger.init((path.string() + "/").c_str(), "ipc", LOG_TRACE);
            }
        }
        ~Folder() {
            Logger.close();
            if (!path.empty()) {
                std::filesystem::remove_all(path);
            }
        }
    };
    static std::string read_all() {
        static Folder folder;
        std::stringstream all;
        if (folder.path.empty()) {
            return all.str();
        }
        for (const auto& entry : std::filesystem::directory_iterator(folder.path)) {
            all << std::ifstream(entry.path()).rdbuf();
        }
        return all.str();
    }
    size_t start_;
};

constexpr int WAIT_MS = 2000;

class Peer {
public:
    Peer() {
        listener_ = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
        socklen_t size = sizeof address;
        bind(listener_, reinterpret_cast<sockaddr*>(&address), size);
        listen(listener_, 1);
        getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size);
        port_ = ntohs(address.sin_port);
    }
    ~Peer() {
        join();
        close(listener_);
    }
    uint16_t port() const { return port_; }

    // Accepts one client, answers its handshake, then plays `script`.
    void run(std::function<void(Peer&)> script) {
        thread_ = std::thread([this, script] {
            fd_ = readable(listener_, WAIT_MS) ? accept(listener_, nullptr, nullptr) : -1;
            if (handshake()) {
                script(*this);
            } else {
                ADD_FAILURE() << "no WebSocket client connected";
            }
            close(fd_);
        });
    }
    void join() {
        if (thread_.joinable()) {
            thread_.join();
        }
    }

    // One masked text frame from the client, parsed; an empty object on a
    // time-out, a close or a payload that is not a JSON object.
    json receive() {
        uint8_t head[4];
        std::string payload;
        if (read_exact(head, 2)) {
            EXPECT_EQ(head[0], 0x81) << "one final text frame per message";
            EXPECT_TRUE(head[1] & 0x80 && (head[1] & 0x7f) < 126) << "masked, short length";
            payload.resize(head[1] & 0x7f);
            if (!read_exact(head, 4) || !read_exact(payload.data(), payload.size())) {
                payload.clear();
            }
            for (size_t i = 0; i < payload.size(); ++i) {
                payload[i] = static_cast<char>(payload[i] ^ head[i % 4]);
            }
        }
        json message = json::parse(payload, nullptr, false);
        return message.is_object() ? message : json::object();
    }
    void send_text(const std::string& text) {
        ASSERT_LT(text.size(), 126u);
        write_all("\x81" + std::string(1, static_cast<char>(text.size())) + text);
    }
    // Answers `request` with its own command and id.
    void answer(json request, const json& data) {
        request["data"] = data;
        send_text(request.dump());
    }
    // Nothing sent and the connection still open for `ms`.
    bool silent(int ms) { return !readable(fd_, ms); }
    bool closed_by_client() {
        char byte;
        return readable(fd_, WAIT_MS) && recv(fd_, &byte, 1, MSG_PEEK) == 0;
    }

private:
    static bool readable(int fd, int ms) {
        pollfd watched{fd, POLLIN, 0};
        return fd >= 0 && poll(&watched, 1, ms) == 1;
    }
    bool read_exact(void* into, size_t count) {
        for (size_t got = 0; got < count;) {
            ssize_t n = readable(fd_, WAIT_MS)
                            ? recv(fd_, static_cast<char*>(into) + got, count - got, 0)
                            : -1;
            if (n <= 0) {
                return false;
            }
            got += static_cast<size_t>(n);
        }
        return true;
    }
    void write_all(const std::string& bytes) {
        EXPECT_EQ(send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
    }
    // The whole answer goes out in one write: the client reads it only once.
    bool handshake() {
        std::string request;
        char byte;
        while (request.find("\r\n\r\n") == std::string::npos && read_exact(&byte, 1)) {
            request += byte;
        }
        const std::string marker = "\r\nSec-WebSocket-Key: ";
        size_t start = request.find(marker);
        if (request.rfind("GET / HTTP/1.1\r\n", 0) != 0 || start == std::string::npos) {
            return false;
        }
        start += marker.size();
        const std::string key = request.substr(start, request.find("\r\n", start) - start);
        const std::string solved = key + "258EAFA5-E914-47DA-95CA-C5AB0DC85B11";
        uint8_t digest[20];
        Crypto.sha1_compute(reinterpret_cast<const uint8_t*>(solved.data()), solved.size(), digest);
        char* accept = Crypto.base64_encode(digest, sizeof digest, nullptr);
        write_all(std::string("HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\n") +
                  "Connection: Upgrade\r\nSec-WebSocket-Accept: " + accept + "\r\n\r\n");
        free(accept);
        return true;
    }

    int listener_ = -1;
    int fd_ = -1;
    uint16_t port_ = 0;
    std::thread thread_;
};

// What the loop saw; dispatcher subscribers and IPC callbacks take no context.
struct Seen {
    std::vector<uint32_t> events;
    std::vector<std::string> delivered;
    bool stopped_by_timer = false;
};
Seen seen;

void record_event(uint32_t id, void*) {
    seen.events.push_back(id);
    if (id == IPC_EVENT_DISCONNECTED) {
        event_base_loopbreak(Network.get_event_base());
    }
}
void stop_loop(evutil_socket_t, short, void*) {
    seen.stopped_by_timer = true;
    event_base_loopbreak(Network.get_event_base());
}

std::string text_of(const JsonValue* value) {
    char text[1000] = {};
    json_serialize(value, text, sizeof text);
    return text;
}
// Records the delivery; what it returns, the client prints and logs.
char* deliver(const char* kind, const char* printed, JsonValue* data) {
    seen.delivered.push_back(kind + text_of(data));
    return strdup((printed + text_of(data)).c_str());
}
char* on_response(JsonValue* data) {
    return deliver("response ", "answered ", data);
}
char* on_event(JsonValue* data) {
    return deliver("event ", "event ", data);
}
JsonValue* no_data(void*) {
    return nullptr;
}
JsonValue* data_from_text(void* text) {
    return json_parse(static_cast<const char*>(text));
}

SubscriptionRequest* new_subscription(const char* name, const char* event,
                                      ResponseCallback callback = nullptr) {
    auto* subscription = static_cast<SubscriptionRequest*>(calloc(1, sizeof(SubscriptionRequest)));
    strcpy(subscription->subscription_name, name);
    strcpy(subscription->event_name, event);
    subscription->callback = callback;
    return subscription;
}

std::vector<std::string> queued_names(IpcClientConfig* config) {
    std::vector<std::string> names;
    for (ListEntry* entry = config->commands->head; entry != nullptr; entry = entry->next) {
        names.push_back(static_cast<IpcCommand*>(entry->item)->name);
    }
    return names;
}

class IpcTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!Network.is_initialized()) {
            ASSERT_EQ(Network.init(), 0);
        }
        seen = Seen{};
        dispatcher_ = CallbackEvent.create(Network.get_event_base(), DISPATCHER_EVENT_COUNT);
        CallbackEvent.subscribe(dispatcher_, IPC_EVENT_DISCONNECTED, record_event);
        CallbackEvent.subscribe(dispatcher_, IPC_EVENT_PLEASE_DISCONNECT, record_event);
        config_ = IpcConfig.create_client_ipc_config("127.0.0.1", peer_.port(), -1, 1);
    }
    void TearDown() override {
        peer_.join();
        if (connection_ != nullptr) {
            // A hang-up by the peer leaves the WebSocket state to the owner.
            WebSocketClient.close_websocket_connection(connection_);
            Network.destroy_connection(connection_);
        }
        IpcConfig.free_ipc_config(config_);
        event_base_loop(Network.get_event_base(), EVLOOP_NONBLOCK);  // leftover deliveries
        CallbackEvent.destroy(dispatcher_);
    }
    // Adds `subscriptions` in one list, as a caller would.
    void subscribe(std::initializer_list<SubscriptionRequest*> subscriptions) {
        List* list = LinkedList.create(nullptr);
        for (SubscriptionRequest* subscription : subscriptions) {
            LinkedList.add(list, subscription);
        }
        IpcConfig.add_subscriptions(config_, list);
        LinkedList.free(list, nullptr);
    }
    // Runs the client until event 46 or the guard, and returns its stdout.
    std::string converse(std::function<void(Peer&)> script) {
        IpcConfig.set_timeout(config_, Network.get_event_base(), stop_loop, nullptr, 5);
        connection_ = IpcClient.instantiate_ipc_client(config_, nullptr, dispatcher_);
        EXPECT_NE(connection_, nullptr);
        event* guard =
            CallbackEvent.set_timer(Network.get_event_base(), stop_loop, nullptr, 4, 0, false);
        peer_.run(std::move(script));
        testing::internal::CaptureStdout();
        Network.perform_connection(connection_);
        event_base_dispatch(Network.get_event_base());
        event_free(guard);
        peer_.join();
        std::string out = testing::internal::GetCapturedStdout();
        if (HasFailure()) {
            std::cerr << out;  // gtest's own reports went there too
        }
        EXPECT_FALSE(seen.stopped_by_timer);
        return out;
    }

    Peer peer_;
    EventDispatcher* dispatcher_ = nullptr;
    IpcClientConfig* config_ = nullptr;
    networkConnection* connection_ = nullptr;
    LogTail log_;
};

TEST_F(IpcTest, LongestCommandNameHas254Characters) {
    const std::string longest(254, 'c'), too_long(255, 'c');
    const std::string refusal =
        "Cannot create IPC command because specified command name is too long. Allowed max size "
        "= 255";
    IpcConfig.add_command(config_, longest.c_str(), nullptr, nullptr, nullptr);
    EXPECT_FALSE(log_.contains(refusal));
    IpcConfig.add_command(config_, too_long.c_str(), nullptr, nullptr, nullptr);
    EXPECT_TRUE(log_.contains(refusal));
    EXPECT_NE(IpcConfig.lookup_command(config_, longest.c_str()), nullptr);
    EXPECT_EQ(IpcConfig.lookup_command(config_, too_long.c_str()), nullptr);
}

// Each add queues one request in place; a duplicate is held once, stays the
// caller's, and is named once in the request.
TEST_F(IpcTest, SubscriptionsAreHeldOnceAndEachAddQueuesARequest) {
    SubscriptionRequest* first = new_subscription("a_subscription", "a_event");
    SubscriptionRequest* twin = new_subscription("a_subscription", "a_event");
    IpcConfig.add_command(config_, "connect_tenants", nullptr, nullptr, nullptr);
    subscribe({first, twin, first});
    IpcConfig.add_command(config_, "get_tenants", nullptr, nullptr, nullptr);
    subscribe({new_subscription("b_subscription", "b_event")});

    EXPECT_EQ(LinkedList.size(config_->subscriptions), 2u);
    EXPECT_EQ(IpcConfig.lookup_subscription(config_, twin), first);
    EXPECT_TRUE(
        log_.contains("Unable to add subscription a_subscription with command a_event. "
                      "This subscription is already in the list"));
    free(twin);
    EXPECT_EQ(queued_names(config_), (std::vector<std::string>{"connect_tenants", "subscription",
                                                               "get_tenants", "subscription"}));
    auto* request = static_cast<IpcCommand*>(config_->commands->tail->item);
    JsonValue* data = request->execution_callback(request->user_data);
    EXPECT_EQ(text_of(data), R"({"subscriptions":["a_subscription","b_subscription"]})");
    json_free_value(data);
}

void count_fires(evutil_socket_t, short, void* count) {
    ++*static_cast<int*>(count);
}

TEST_F(IpcTest, OneTimeoutPerConfigFiringOnce) {
    struct event_base* base = event_base_new();
    int fires = 0;
    ASSERT_EQ(IpcConfig.set_timeout(config_, base, count_fires, &fires, 0), 0);
    struct event* first = config_->timeout_event;
    EXPECT_EQ(IpcConfig.set_timeout(config_, base, count_fires, &fires, 0), -1);
    EXPECT_EQ(config_->timeout_event, first);
    EXPECT_TRUE(
        log_.contains("Unable to set timeout as a timeout is already set on this ipc "
                      "config"));
    event_base_dispatch(base);  // returns once nothing is pending: the timer is one-shot
    EXPECT_EQ(fires, 1);
    IpcConfig.free_ipc_config(config_);
    config_ = nullptr;
    event_base_free(base);
}

TEST_F(IpcTest, MissingArgumentsAreLoggedAndRefused) {
    const std::vector<std::pair<std::function<bool()>, std::string>> cases = {
        {[] { return IpcConfig.create_client_ipc_config(nullptr, 1, 1, 1) == nullptr; },
         "Unable to create client ipc config because provided ip address is NULL"},
        {[] { return IpcConfig.request_subscription(nullptr) == nullptr; },
         "Unable to request subscription: subscription list is NULL"},
        {[this] { return IpcConfig.lookup_subscription(config_, nullptr) == nullptr; },
         "Unable to lookup specified subscription because provided subscription  is NULL"},
        {[this] {
             IpcConfig.add_subscriptions(config_, nullptr);
             return LinkedList.size(config_->commands) == 0;
         },
         "Unable to add subscription. Subscription list is NULL"},
        {[this] {
             IpcConfig.add_command(config_, nullptr, nullptr, nullptr, nullptr);
             return LinkedList.size(config_->commands) == 0;
         },
         "Unable to add command. Command name is NULL"},
    };
    for (const auto& [call, message] : cases) {
        EXPECT_TRUE(call()) << message;
        EXPECT_TRUE(log_.contains(message)) << message;
    }
}

const json ANNOUNCEMENT = {{"command", "connection"}, {"id", 17}};

TEST_F(IpcTest, FullConversationWithTwoCommandsAndASubscription) {
    subscribe({new_subscription("services_subscription", "tenants_event", on_event)});
    IpcConfig.add_command(config_, "get_tenants", no_data, nullptr, on_response);
    IpcConfig.add_command(config_, "get_proxy", data_from_text,
                          const_cast<char*>(R"({"mode":"none"})"), on_response);
    std::string out = converse([](Peer& peer) {
        EXPECT_EQ(peer.receive(), ANNOUNCEMENT);
        json request = peer.receive();
        EXPECT_EQ(request["command"], "subscription");
        EXPECT_EQ(request["data"], json::parse(R"({"subscriptions":["services_subscription"]})"));
        EXPECT_TRUE(peer.silent(150)) << "a second request before the first was answered";
        peer.send_text(R"({"command":"tenants_event","data":{"n":1}})");
        EXPECT_TRUE(peer.silent(150)) << "an event advanced the queue";
        peer.answer(request, json::parse(R"({"subscriptions":[]})"));
        for (auto [name, data] :
             {std::pair{"get_tenants", json()}, {"get_proxy", {{"mode", "none"}}}}) {
            request = peer.receive();
            EXPECT_EQ(request["command"], name);
            EXPECT_GE(request["id"], 0);
            EXPECT_LT(request["id"], IPC_ID_RANGE);
            EXPECT_EQ(request.value("data", json()), data);
            peer.answer(request, {{"for", name}});
        }
        EXPECT_TRUE(peer.silent(300)) << "the held subscription must keep the connection";
        peer.send_text(R"({"command":"tenants_event","id":-1,"data":{"n":2}})");
        EXPECT_TRUE(peer.silent(150));
        peer.send_text(R"({"command":"please_disconnect","id":0})");
        EXPECT_TRUE(peer.closed_by_client()) << "eviction";
    });
    EXPECT_EQ(out,
              "event {\"n\":1}\nanswered {\"for\":\"get_tenants\"}\n"
              "answered {\"for\":\"get_proxy\"}\nevent {\"n\":2}\n");
    EXPECT_TRUE(log_.contains("Executed command get_proxy : answered {\"for\":\"get_proxy\"}"));
    EXPECT_NE(config_->timeout_event, nullptr);
    EXPECT_EQ(seen.events,
              (std::vector<uint32_t>{IPC_EVENT_PLEASE_DISCONNECT, IPC_EVENT_DISCONNECTED}));
}

// A message that does not settle the pending command properly still consumes
// it: the next command goes out, and the run ends once the queue is empty.
struct BadAnswer {
    const char* name;
    const char* reply;  // {ID} is the pending id, {WRONG} another one
    const char* logged;
    bool subscribed = false;  // "subscription", not "first", is pending
};

class ConsumedCommandTest : public IpcTest, public ::testing::WithParamInterface<BadAnswer> {};

std::string fill(std::string text, int id) {
    for (auto [mark, value] : {std::pair{"{ID}", id}, std::pair{"{WRONG}", (id + 1) % 15000}}) {
        for (size_t at; (at = text.find(mark)) != std::string::npos;) {
            text.replace(at, strlen(mark), std::to_string(value));
        }
    }
    return text;
}

TEST_P(ConsumedCommandTest, NextCommandIsSentAndRunEnds) {
    if (GetParam().subscribed) {
        subscribe({new_subscription("services_subscription", "tenants_event")});
    } else {
        IpcConfig.add_command(config_, "first", no_data, nullptr, on_response);
    }
    IpcConfig.add_command(config_, "second", no_data, nullptr, on_response);
    int first_id = -1;
    const bool held = GetParam().subscribed;  // a held subscription keeps the connection
    converse([&first_id, held](Peer& peer) {
        EXPECT_EQ(peer.receive(), ANNOUNCEMENT);
        first_id = peer.receive().value("id", -1);
        peer.send_text(fill(GetParam().reply, first_id));
        json second = peer.receive();
        EXPECT_EQ(second["command"], "second");
        peer.answer(second, "done");
        EXPECT_TRUE(held || peer.closed_by_client());
    });
    EXPECT_EQ(seen.delivered, std::vector<std::string>{"response \"done\""});
    EXPECT_EQ(seen.events, std::vector<uint32_t>{IPC_EVENT_DISCONNECTED});
    EXPECT_EQ(config_->timeout_event != nullptr, held) << "the time-out outlived the conversation";
    EXPECT_EQ(LinkedList.size(config_->commands), 0u);
    EXPECT_TRUE(log_.contains(fill(GetParam().logged, first_id))) << log_.text();
}

INSTANTIATE_TEST_SUITE_P(
    Answers, ConsumedCommandTest,
    ::testing::Values(
        BadAnswer{"Garbage", "not json", "Received a bad Json formatted message from server"},
        BadAnswer{"NoCommand", R"({"id":{ID},"data":{}})",
                  "Received a bad Json formatted message from server"},
        BadAnswer{"WrongId", R"({"command":"first","id":{WRONG},"data":{}})",
                  "Received a bad id in response. Expected: {ID} and got {WRONG}"},
        BadAnswer{"WrongCommand", R"({"command":"second","id":{ID},"data":{}})",
                  "We received a command that does not correspond to the expected. Expected: "
                  "first. Received: second"},
        BadAnswer{"NoData", R"({"command":"first","id":{ID}})",
                  "Failed to retrieve data from response in receive_message_callback()"},
        BadAnswer{"EvictionWithoutIdIsAnUnknownEvent",
                  R"({"command":"please_disconnect","data":{}})",
                  "Received a bad Json formatted message from server"},
        // An event for a subscription without callback is taken as the answer.
        BadAnswer{"EventWithoutCallback", R"({"command":"tenants_event","data":{}})",
                  "Expected: subscription. Received: tenants_event", true}),
    [](const auto& row) { return std::string(row.param.name); });

// Nothing to send after the announcement: the client hangs up at once.
class NothingToSendTest : public IpcTest, public ::testing::WithParamInterface<bool> {};

TEST_P(NothingToSendTest, EndsRightAfterTheAnnouncement) {
    const std::string huge = "\"" + std::string(1000, 'x') + "\"";
    if (GetParam()) {
        IpcConfig.add_command(config_, "add_tenant", data_from_text,
                              const_cast<char*>(huge.c_str()), on_response);
    }
    converse([](Peer& peer) {
        // The close comes at once: it may drop the announcement still queued.
        json first = peer.receive();
        EXPECT_TRUE(first.empty() || first == ANNOUNCEMENT) << first;
        EXPECT_TRUE(peer.closed_by_client());
    });
    EXPECT_EQ(seen.events, std::vector<uint32_t>{IPC_EVENT_DISCONNECTED});
    EXPECT_EQ(log_.contains("Unable to serialized request. Stopped connection"), GetParam());
}

INSTANTIATE_TEST_SUITE_P(Queues, NothingToSendTest, ::testing::Bool(), [](const auto& row) {
    return std::string(row.param ? "RequestOver1000Bytes" : "EmptyQueue");
});

}  // namespace
