// Snapshots shared by the renderer's tests and the promtool check.
#pragma once

#include "cli/observe/metrics.h"

inline MetricsSnapshot agent_down() {
    MetricsSnapshot snapshot;
    snapshot.version = "0.1.0";
    return snapshot;
}

inline MetricsSnapshot no_services() {
    MetricsSnapshot snapshot = agent_down();
    snapshot.agent_up = true;
    snapshot.response_seconds = 0.0042;
    snapshot.services_known = true;
    return snapshot;
}

// One service per status, a name seen twice, and the proxy.
inline MetricsSnapshot every_status() {
    MetricsSnapshot snapshot = no_services();
    snapshot.services = {{"web", "u1", "connected", "w.onion"}, {"db", "u2", "in progress", ""},
                         {"mail", "u3", "disconnected", ""},    {"ftp", "u4", "error", ""},
                         {"old", "u5", "stopped", ""},          {"web", "u6", "error", ""}};
    snapshot.proxy_known = true;
    snapshot.proxy = {"192.168.1.10:1080", "SOCKS5", true};
    return snapshot;
}

// Names an agent or a local user could choose to break the format or drive
// a terminal; the last two differ only in characters that are replaced.
inline MetricsSnapshot hostile_names() {
    MetricsSnapshot snapshot = no_services();
    snapshot.services = {{"a\"b\\c\nd", "u\"1", "connected", "x\\"},
                         {"} 1\nsylvane_agent_up 0", "\xff\xfe", "error", "\x1b]0;t\a"},
                         {"z\x01", "", "connected", ""},
                         {"z\x9b", "", "connected", ""}};
    return snapshot;
}
