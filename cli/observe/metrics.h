// Metrics: the agent's state in Prometheus's text exposition format, and
// the atomic write of it for node_exporter's textfile collector. Pure: the
// caller gathers the state and prints or writes the text.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

// One service as the agent listed it. Every text is the agent's, untrusted.
struct MetricsService {
    std::string name;
    std::string uuid;
    std::string status;  // the agent's word: "connected", "in progress", ...
    std::string onion_address;
};

struct MetricsProxy {
    std::string address;  // "ip:port"
    std::string type;
    bool enabled = false;
};

// What one run saw. Services and proxy are left out when not known (the
// agent down, or not asked).
struct MetricsSnapshot {
    bool agent_up = false;
    double response_seconds = 0;  // read only when agent_up
    bool services_known = false;
    std::vector<MetricsService> services;
    bool proxy_known = false;
    MetricsProxy proxy;
    std::string version;  // the tool's
};

// The statuses of the state set, in the order they are written; a status
// the agent reports outside the first four counts as "other".
constexpr const char* METRICS_STATUSES[] = {"connected", "in progress", "disconnected", "error",
                                            "other"};

// The text exposition (format 0.0.4): HELP and TYPE before each family,
// label values escaped and made valid UTF-8. A service whose name was
// already written is counted but gets no series of its own: series must be
// unique. Empty when memory ran out.
std::string render_metrics(const MetricsSnapshot& snapshot) noexcept;

// Replaces `path` with `text` whole or not at all: a temporary file in the
// same folder (hidden, so the textfile collector skips it), mode 0644,
// written, synced, then renamed over `path`. 0, or -1 with a one-line
// message in `error` (`error_size` bytes) and no file left behind.
int write_metrics_file(const char* path, const std::string& text, char* error,
                       size_t error_size) noexcept;
