// Socket reading shared by the benchmark's agent and raw client.
#pragma once

#include <sys/socket.h>

#include <string>

// Reads until `buffer` holds at least `count` bytes; false on EOF or error.
inline bool fill(int fd, std::string& buffer, size_t count) {
    char chunk[65536];
    while (buffer.size() < count) {
        const ssize_t n = recv(fd, chunk, sizeof chunk, 0);
        if (n <= 0) {
            return false;
        }
        buffer.append(chunk, static_cast<size_t>(n));
    }
    return true;
}
