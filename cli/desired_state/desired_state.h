// DesiredState: the services (and proxy) an agent should have, as a
// desired-state file declares them, and the reader that checks a whole file
// before anything is sent. Every refusal names FILE:LINE:COLUMN.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// An IPv4 address in its one strict form and a port 1-65535.
struct Endpoint {
    std::string address{};
    uint16_t port = 0;

    // "address:port".
    std::string text() const;
    bool operator==(const Endpoint&) const = default;
};

struct DesiredService {
    std::string name{};  // 1-255 bytes of UTF-8
    Endpoint target{};
    std::optional<uint16_t> virtual_port{};     // absent: the target's port
    std::optional<bool> enabled{};              // absent: left as it is
    std::vector<std::string> clear_services{};  // used only when the service is created

    uint16_t effective_virtual_port() const { return virtual_port.value_or(target.port); }
    bool operator==(const DesiredService&) const = default;
};

struct DesiredProxy {
    Endpoint address{};
    std::string type{};             // "HTTP", "HTTPS" or "SOCKS5", as the agent is sent it
    std::optional<bool> enabled{};  // absent: left as it is
    bool operator==(const DesiredProxy&) const = default;
};

struct DesiredState {
    std::vector<DesiredService> services{};  // in file order
    std::optional<DesiredProxy> proxy{};     // absent: the agent's proxy is left as it is
    bool operator==(const DesiredState&) const = default;
};

// The one version of the file format this tool reads.
constexpr int64_t DESIRED_STATE_VERSION = 1;

// Reads `text` (YAML 1.2, so JSON too) into `state`. On refusal returns
// false and sets `error` to "FILE:LINE:COLUMN: what is wrong", with `file`
// the name to show. Never throws; running out of memory is a refusal.
bool read_desired_state(std::string_view text, std::string_view file, DesiredState* state,
                        std::string* error) noexcept;

// Reads the file at `path` ("-": standard input, named "<stdin>" in
// messages) and then its text as above. A file that cannot be read gives
// "FILE: reason".
bool read_desired_state_file(const char* path, DesiredState* state, std::string* error) noexcept;
