// The guard in front of the API key: before an add, who owns the socket
// listening on the Transfer Agent's port? Any local user can listen on
// 127.0.0.1:11038 while the agent is down and would receive the key, so the
// add goes ahead only when every such listener belongs to root, to the
// invoking user or to the uid allowed by --agent-uid / SYLVANE_AGENT_UID.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

constexpr const char* AGENT_UID_VARIABLE = "SYLVANE_AGENT_UID";
// getopt value of --agent-uid, outside the option letters.
constexpr int OPTION_AGENT_UID = 1001;

// Results of AgentListener.find_foreign_listener.
constexpr int AGENT_LISTENER_NONE = 0;     // no listener outside the allowed uids
constexpr int AGENT_LISTENER_FOREIGN = 1;  // *owner holds the first foreign uid

struct AgentListenerModule {
    // Pure: scans the text of /proc/net/tcp (ipv6 false) or /proc/net/tcp6
    // (ipv6 true) for sockets in LISTEN state on `port` that take
    // connections to 127.0.0.1: bound to 127.0.0.1 or 0.0.0.0, or to ::,
    // ::ffff:127.0.0.1 or ::ffff:0.0.0.0 (a dual-stack socket). Lines that
    // are not socket rows (the header) are skipped.
    // AGENT_LISTENER_NONE or AGENT_LISTENER_FOREIGN.
    int (*find_foreign_listener)(const char* table, bool ipv6, uint16_t port, const uid_t* allowed,
                                 size_t allowed_count, uid_t* owner);
    // Keeps the --agent-uid text (not copied: argv lives as long as the
    // process); it takes precedence over SYLVANE_AGENT_UID.
    void (*allow_uid)(const char* text);
    // Runs the check against the live tables for 127.0.0.1:`port`. Returns
    // when the key may be sent; otherwise ends the run with status 1 and why:
    // an untrusted listener (naming its uid), tables that cannot be read, or
    // an allowed uid that is not a number.
    void (*guard)(uint16_t port);
};

extern const AgentListenerModule AgentListener;
