// The guard in front of the API key: before an add, who owns the socket
// listening on the Transfer Agent's port? Any local user can listen on
// 127.0.0.1:11038 while the agent is down and would receive the key, so the
// add goes ahead only when every such listener belongs to root, to the
// invoking user or to the uid allowed by --agent-uid / SYLVANE_AGENT_UID.
// Nothing here prints: the add command says what was found.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

constexpr const char* AGENT_UID_VARIABLE = "SYLVANE_AGENT_UID";

// Results of AgentListener.find_foreign_listener and AgentListener.check.
constexpr int AGENT_LISTENER_NONE = 0;        // no listener outside the allowed uids
constexpr int AGENT_LISTENER_FOREIGN = 1;     // the owner holds the first foreign uid
constexpr int AGENT_LISTENER_ERR_UID = -1;    // the allowed uid is not a number
constexpr int AGENT_LISTENER_ERR_TABLE = -2;  // a table could not be read

// What AgentListener.check found.
struct ListenerCheck {
    uid_t owner;           // AGENT_LISTENER_FOREIGN: the listener's uid
    char owner_name[64];   // its account name from /etc/passwd, empty when unknown
    const char* uid_text;  // AGENT_LISTENER_ERR_UID: the text given
    const char* uid_from;  // "--agent-uid" or AGENT_UID_VARIABLE
    const char* table;     // AGENT_LISTENER_ERR_TABLE: the table's path
    int error;             // and the errno of the failed read
};

struct AgentListenerModule {
    // Pure: scans the text of /proc/net/tcp (ipv6 false) or /proc/net/tcp6
    // (ipv6 true) for sockets in LISTEN state on `port` that take
    // connections to 127.0.0.1: bound to 127.0.0.1 or 0.0.0.0, or to ::,
    // ::ffff:127.0.0.1 or ::ffff:0.0.0.0 (a dual-stack socket). Lines that
    // are not socket rows (the header) are skipped.
    // AGENT_LISTENER_NONE or AGENT_LISTENER_FOREIGN.
    int (*find_foreign_listener)(const char* table, bool ipv6, uint16_t port, const uid_t* allowed,
                                 size_t allowed_count, uid_t* owner);
    // Runs the check against the live tables for 127.0.0.1:`port`; the
    // allowed uid is `agent_uid` (--agent-uid) when not null, else
    // SYLVANE_AGENT_UID's. AGENT_LISTENER_NONE (the key may be sent),
    // AGENT_LISTENER_FOREIGN, AGENT_LISTENER_ERR_UID or
    // AGENT_LISTENER_ERR_TABLE, with the details in *found.
    int (*check)(uint16_t port, const char* agent_uid, ListenerCheck* found);
};

extern const AgentListenerModule AgentListener;
