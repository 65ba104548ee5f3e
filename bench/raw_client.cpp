// The smallest client that does what `sylvane-service -l` or `-g` does on
// the wire: connect, upgrade, send the announcement and one request as
// masked frames, read frames up to the answer and write its payload out.
// It is the floor against which the tool's latency is compared.
//   raw_client get_tenants|get_proxy
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

#include "fill.h"

namespace {

constexpr char kRequest[] =
    "GET / HTTP/1.1\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
    "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n\r\n";
constexpr char kAccept[] = "s3pPLMBiTxaQ9kYGzzhZRbK+xOo=";

bool send_all(int fd, const std::string& bytes) {
    size_t sent = 0;
    while (sent < bytes.size()) {
        const ssize_t n = send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) {
            return false;
        }
        sent += static_cast<size_t>(n);
    }
    return true;
}

// One masked text frame (fixed key: the server only has to undo it).
std::string masked_text(const std::string& text) {
    const uint8_t key[4] = {0x12, 0x34, 0x56, 0x78};
    std::string frame(1, '\x81');
    if (text.size() < 126) {
        frame += static_cast<char>(0x80 | text.size());
    } else {
        frame += '\xfe';
        frame += static_cast<char>(text.size() >> 8);
        frame += static_cast<char>(text.size() & 0xff);
    }
    frame.append(reinterpret_cast<const char*>(key), 4);
    for (size_t i = 0; i < text.size(); ++i) {
        frame += static_cast<char>(text[i] ^ key[i % 4]);
    }
    return frame;
}

// Next server frame (unmasked, unfragmented): drops the previous frame from
// `buffer` and gives where the payload starts and its length, or false.
bool next_payload(int fd, std::string& buffer, size_t& start, uint64_t& length) {
    buffer.erase(0, start + length);
    if (!fill(fd, buffer, 2)) {
        return false;
    }
    length = static_cast<uint8_t>(buffer[1]) & 0x7f;
    size_t header = 2;
    if (length >= 126) {
        header = length == 126 ? 4 : 10;
        if (!fill(fd, buffer, header)) {
            return false;
        }
        length = 0;
        for (size_t i = 2; i < header; ++i) {
            length = length << 8 | static_cast<uint8_t>(buffer[i]);
        }
    }
    if (!fill(fd, buffer, header + length)) {
        return false;
    }
    start = header;
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string command = argc > 1 ? argv[1] : "get_tenants";
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(11038);
    address.sin_addr.s_addr = inet_addr("127.0.0.1");
    const int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        perror("connect");
        return 1;
    }
    std::string buffer;
    if (!send_all(fd, kRequest)) {
        return 1;
    }
    char chunk[4096];
    while (buffer.find("\r\n\r\n") == std::string::npos) {
        const ssize_t n = recv(fd, chunk, sizeof chunk, 0);
        if (n <= 0) {
            return 1;
        }
        buffer.append(chunk, static_cast<size_t>(n));
    }
    if (buffer.find(kAccept) == std::string::npos) {
        fputs("handshake refused\n", stderr);
        return 1;
    }
    buffer.erase(0, buffer.find("\r\n\r\n") + 4);
    const std::string request = "{\"command\": \"" + command + "\", \"id\": 4242}";
    if (!send_all(
            fd, masked_text("{\"command\": \"connection\", \"id\": 17}") + masked_text(request))) {
        return 1;
    }
    const std::string quoted = "\"" + command + "\"";
    size_t start = 0;
    uint64_t length = 0;
    while (next_payload(fd, buffer, start, length)) {
        const std::string_view payload(buffer.data() + start, length);
        if (payload.find(quoted) != std::string_view::npos) {
            fwrite(payload.data(), 1, payload.size(), stdout);
            fputc('\n', stdout);
            close(fd);
            return 0;
        }
    }
    fputs("no answer\n", stderr);
    return 1;
}
