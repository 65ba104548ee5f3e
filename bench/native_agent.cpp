// A Transfer Agent that answers at once, so that timing a client against it
// measures the client. It serves one connection at a time on
// 127.0.0.1:11038: answers the opening handshake in one send, ignores the
// announcement and answers every other request with a pre-built "data",
// echoing the request's command and id. The listing holds SERVICES services,
// each a JSON object serialised into a string, as the real agent sends them.
//   native_agent SERVICES      (prints "ready" once listening)
// Run it in a private network namespace: the port is fixed.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "fill.h"

#include "websocket/websocket.h"

namespace {

constexpr uint16_t kPort = 11038;
constexpr size_t kMaxHandshake = 16384;
// Client frames are small requests; anything larger is not a client of ours.
constexpr uint64_t kMaxRequest = 1 << 20;

// Service i, as the listing carries it: one JSON object as text.
std::string service(unsigned i) {
    char text[512];
    snprintf(text, sizeof text,
             "{\"tenant_name\": \"service%u\", \"status\": \"connected\", "
             "\"ip_address\": \"10.%u.%u.%u\", \"port\": 8080, \"virtual_port\": 80, "
             "\"uuid\": \"00000000-0000-0000-0000-%012x\", \"onion_address\": \"%056u.onion\", "
             "\"api_key\": \"%s\", \"clear_services\": []}",
             i, i >> 16 & 255, i >> 8 & 255, i & 255, i, i, std::string(76, 'k').c_str());
    return text;
}

// {"tenants": [...]} whose items are the services' texts as JSON strings.
std::string listing(unsigned count) {
    std::string data = "{\"tenants\": [";
    for (unsigned i = 0; i < count; ++i) {
        if (i > 0) {
            data += ", ";
        }
        data += '"';
        for (const char c : service(i)) {
            if (c == '"' || c == '\\') {
                data += '\\';
            }
            data += c;
        }
        data += '"';
    }
    return data + "]}";
}

struct Answers {
    std::string tenants;
    std::string proxy =
        "{\"type\": \"SOCKS5\", \"ip_address\": \"127.0.0.1\", "
        "\"port\": 9050, \"enabled\": true}";
    std::string subscribed =
        "{\"subscriptions\": [{\"subscription_name\": "
        "\"services_subscription\", \"result\": true}]}";
    std::string done = "{\"success\": true}";

    const std::string& for_command(std::string_view command) const {
        if (command == "get_tenants") {
            return tenants;
        }
        if (command == "get_proxy") {
            return proxy;
        }
        return command == "subscription" ? subscribed : done;
    }
};

bool send_all(int fd, iovec* parts, int count) {
    while (count > 0) {
        ssize_t sent = writev(fd, parts, count);
        if (sent < 0) {
            return false;
        }
        while (count > 0 && static_cast<size_t>(sent) >= parts->iov_len) {
            sent -= static_cast<ssize_t>(parts->iov_len);
            ++parts, --count;
        }
        if (count > 0) {
            parts->iov_base = static_cast<char*>(parts->iov_base) + sent;
            parts->iov_len -= static_cast<size_t>(sent);
        }
    }
    return true;
}

// Reads the upgrade request and answers it in one send.
bool handshake(int fd, std::string& buffer) {
    size_t end = 0;
    while ((end = buffer.find("\r\n\r\n")) == std::string::npos) {
        if (buffer.size() > kMaxHandshake || !fill(fd, buffer, buffer.size() + 1)) {
            return false;
        }
    }
    const std::string head = buffer.substr(0, end + 2);
    buffer.erase(0, end + 4);
    const char* key = strcasestr(head.c_str(), "\r\nSec-WebSocket-Key:");
    if (key == nullptr) {
        return false;
    }
    key += strlen("\r\nSec-WebSocket-Key:");
    key += strspn(key, " \t");
    const std::string nonce(key, strcspn(key, " \t\r"));
    uint64_t accept_length = 0;
    char* accept = WebSocket.compute_websocket_accept(nonce.c_str(), &accept_length);
    if (accept == nullptr) {
        return false;
    }
    const std::string answer =
        "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
        "Sec-WebSocket-Accept: " +
        std::string(accept, accept_length) + "\r\n\r\n";
    free(accept);
    return send(fd, answer.data(), answer.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(answer.size());
}

// Next client frame: opcode and unmasked payload; false on EOF or a frame
// too large to be a request.
bool read_frame(int fd, std::string& buffer, int& opcode, std::string& payload) {
    if (!fill(fd, buffer, 2)) {
        return false;
    }
    const auto byte = [&](size_t i) { return static_cast<uint8_t>(buffer[i]); };
    opcode = byte(0) & 0x0f;
    uint64_t length = byte(1) & 0x7f;
    size_t header = length == 126 ? 4 : length == 127 ? 10 : 2;
    const bool masked = (byte(1) & 0x80) != 0;
    if (!fill(fd, buffer, header + (masked ? 4 : 0))) {
        return false;
    }
    if (header > 2) {
        length = 0;
        for (size_t i = 2; i < header; ++i) {
            length = length << 8 | byte(i);
        }
    }
    uint8_t key[4] = {};
    if (masked) {
        memcpy(key, buffer.data() + header, 4);
        header += 4;
    }
    if (length > kMaxRequest || !fill(fd, buffer, header + length)) {
        return false;
    }
    payload.assign(buffer, header, length);
    buffer.erase(0, header + length);
    for (size_t i = 0; i < payload.size(); ++i) {
        payload[i] = static_cast<char>(payload[i] ^ key[i % 4]);
    }
    return true;
}

// The text after `"key":` in a flat JSON object (enough for requests).
const char* member(const std::string& json, const char* key) {
    const std::string quoted = std::string("\"") + key + "\"";
    size_t at = json.find(quoted);
    if (at == std::string::npos) {
        return nullptr;
    }
    at = json.find_first_not_of(" \t\r\n", at + quoted.size());
    if (at == std::string::npos || json[at] != ':') {
        return nullptr;
    }
    at = json.find_first_not_of(" \t\r\n", at + 1);
    return at == std::string::npos ? nullptr : json.c_str() + at;
}

// Answers one request with the canned data: a text frame whose length form
// follows the payload's size (64-bit beyond 65535 bytes).
bool answer(int fd, const std::string& request, const Answers& answers) {
    const char* command = member(request, "command");
    const char* id = member(request, "id");
    if (command == nullptr || *command != '"' || id == nullptr) {
        return true;  // not a request: nothing to answer
    }
    const std::string name(command + 1, strcspn(command + 1, "\""));
    if (name == "connection") {
        return true;
    }
    const std::string head =
        "{\"command\": \"" + name + "\", \"id\": " + std::to_string(atol(id)) + ", \"data\": ";
    const std::string& data = answers.for_command(name);
    const uint64_t length = head.size() + data.size() + 1;
    uint8_t frame[10] = {0x81};
    size_t frame_size = 2;
    if (length < 126) {
        frame[1] = static_cast<uint8_t>(length);
    } else if (length < 65536) {
        frame[1] = 126, frame[2] = static_cast<uint8_t>(length >> 8);
        frame[3] = static_cast<uint8_t>(length);
        frame_size = 4;
    } else {
        frame[1] = 127;
        for (int i = 0; i < 8; ++i) {
            frame[2 + i] = static_cast<uint8_t>(length >> (56 - 8 * i));
        }
        frame_size = 10;
    }
    char close_brace = '}';
    iovec parts[] = {{frame, frame_size},
                     {const_cast<char*>(head.data()), head.size()},
                     {const_cast<char*>(data.data()), data.size()},
                     {&close_brace, 1}};
    return send_all(fd, parts, 4);
}

void serve(int fd, const Answers& answers) {
    const int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    // A client that stalls must not hold the agent for ever.
    const timeval limit{5, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    std::string buffer;
    if (!handshake(fd, buffer)) {
        return;
    }
    int opcode = 0;
    std::string payload;
    while (read_frame(fd, buffer, opcode, payload)) {
        if (opcode == 8) {
            return;
        }
        if (opcode == 1 && !answer(fd, payload, answers)) {
            return;
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        fputs("usage: native_agent SERVICES\n", stderr);
        return 2;
    }
    Answers answers;
    answers.tenants = listing(static_cast<unsigned>(strtoul(argv[1], nullptr, 10)));
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    const int one = 1;
    setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(kPort);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (listener < 0 ||
        bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        listen(listener, 16) != 0) {
        perror("native_agent");
        return 1;
    }
    printf("ready\n");
    fflush(stdout);
    for (;;) {
        const int fd = accept(listener, nullptr, nullptr);
        if (fd < 0) {
            continue;
        }
        serve(fd, answers);
        close(fd);
    }
}
