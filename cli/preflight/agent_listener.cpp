// Who listens on the Transfer Agent's port, from /proc/net/tcp and tcp6.

#include "cli/preflight/agent_listener.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "core/logger.h"

namespace {

constexpr unsigned TCP_LISTEN = 0x0A;
constexpr size_t ROW_LIMIT = 512;
constexpr size_t ALLOWED_LIMIT = 3;

// The kernel prints each 32-bit word of an address as the raw in-memory
// value in hex, so a word read back with strtoul compares equal to the
// s_addr / s6_addr32 it came from, whatever the host's byte order.
bool words_match(const char* hex, const uint32_t* words, size_t count) {
    for (size_t i = 0; i < count; i++) {
        char word[9] = {};
        memcpy(word, hex + 8 * i, 8);
        if (static_cast<uint32_t>(strtoul(word, nullptr, 16)) != words[i]) {
            return false;
        }
    }
    return true;
}

// Addresses whose listener receives a connection to 127.0.0.1.
bool reaches_loopback(const char* hex, bool ipv6) {
    if (!ipv6) {
        const uint32_t loopback = htonl(INADDR_LOOPBACK), any = htonl(INADDR_ANY);
        return strlen(hex) == 8 && (words_match(hex, &loopback, 1) || words_match(hex, &any, 1));
    }
    if (strlen(hex) != 32) {
        return false;
    }
    for (const char* text : {"::", "::ffff:127.0.0.1", "::ffff:0.0.0.0"}) {
        in6_addr address{};
        inet_pton(AF_INET6, text, &address);
        uint32_t words[4];
        memcpy(words, &address, sizeof words);
        if (words_match(hex, words, 4)) {
            return true;
        }
    }
    return false;
}

bool is_allowed(uid_t uid, const uid_t* allowed, size_t allowed_count) {
    for (size_t i = 0; i < allowed_count; i++) {
        if (allowed[i] == uid) {
            return true;
        }
    }
    return false;
}

// One row at a time, copied so that sscanf cannot run into the next line.
int find_foreign_listener(const char* table, bool ipv6, uint16_t port, const uid_t* allowed,
                          size_t allowed_count, uid_t* owner) {
    for (const char* line = table; line != nullptr && *line != '\0';) {
        const char* end = strchr(line, '\n');
        size_t length = end != nullptr ? static_cast<size_t>(end - line) : strlen(line);
        char row[ROW_LIMIT];
        snprintf(row, sizeof row, "%.*s", static_cast<int>(length), line);
        line = end != nullptr ? end + 1 : nullptr;

        char address[33];
        unsigned row_port = 0, state = 0;
        uintmax_t uid = 0;
        if (sscanf(row, " %*u: %32[0-9A-Fa-f]:%x %*s %x %*s %*s %*s %ju", address, &row_port,
                   &state, &uid) != 4) {
            continue;
        }
        if (state != TCP_LISTEN || row_port != port || !reaches_loopback(address, ipv6) ||
            is_allowed(static_cast<uid_t>(uid), allowed, allowed_count)) {
            continue;
        }
        if (owner != nullptr) {
            *owner = static_cast<uid_t>(uid);
        }
        return AGENT_LISTENER_FOREIGN;
    }
    return AGENT_LISTENER_NONE;
}

// Whole file as a malloc'd text the caller frees, or null with errno set.
// Plain C allocation: a failure here is reported, never thrown.
char* read_table(const char* path) {
    FILE* file = fopen(path, "re");
    if (file == nullptr) {
        return nullptr;
    }
    size_t used = 0, size = 16384;
    char* text = static_cast<char*>(malloc(size));
    while (text != nullptr) {
        used += fread(text + used, 1, size - used - 1, file);
        if (used + 1 < size) {
            break;
        }
        char* grown = static_cast<char*>(realloc(text, size * 2));
        if (grown == nullptr) {
            free(text);
        }
        text = grown;
        size *= 2;
    }
    int failed = text == nullptr ? ENOMEM : ferror(file) ? EIO : 0;
    fclose(file);
    if (failed != 0) {
        free(text);
        errno = failed;
        return nullptr;
    }
    text[used] = '\0';
    return text;
}

// The allowed uids: root, the invoking user and the one the user named.
// -1 when that one is not a number.
int allowed_uids(const char* agent_uid, uid_t* allowed, size_t* count, ListenerCheck* found) {
    *count = 0;
    allowed[(*count)++] = 0;
    allowed[(*count)++] = getuid();
    found->uid_from = agent_uid != nullptr ? "--agent-uid" : AGENT_UID_VARIABLE;
    const char* text = agent_uid != nullptr ? agent_uid : getenv(AGENT_UID_VARIABLE);
    if (text == nullptr || text[0] == '\0') {
        return 0;
    }
    char* end = nullptr;
    errno = 0;
    unsigned long long value = strtoull(text, &end, 10);
    if (text[0] < '0' || text[0] > '9' || *end != '\0' || errno != 0 ||
        value >= static_cast<uid_t>(-1)) {
        found->uid_text = text;
        Logger.error("Bad agent uid %s: not a number", text);
        return -1;
    }
    allowed[(*count)++] = static_cast<uid_t>(value);
    return 0;
}

// The account name of `uid` from /etc/passwd, into `name`; empty when the
// file has no such entry. Read directly rather than through getpwuid: the
// tool is linked statically by default, and static glibc can only reach NSS
// by loading modules of its own exact version at run time. A user known only
// to a directory service is named by uid alone.
void account_name(uid_t uid, char* name, size_t size) {
    name[0] = '\0';
    FILE* file = fopen("/etc/passwd", "re");
    if (file == nullptr) {
        return;
    }
    while (const passwd* entry = fgetpwent(file)) {
        if (entry->pw_uid == uid) {
            snprintf(name, size, "%s", entry->pw_name);
            break;
        }
    }
    fclose(file);
}

int check(uint16_t port, const char* agent_uid, ListenerCheck* found) {
    *found = ListenerCheck{};
    uid_t allowed[ALLOWED_LIMIT];
    size_t allowed_count = 0;
    if (allowed_uids(agent_uid, allowed, &allowed_count, found) != 0) {
        return AGENT_LISTENER_ERR_UID;
    }
    const struct {
        const char* path;
        bool ipv6;
    } tables[] = {{"/proc/net/tcp", false}, {"/proc/net/tcp6", true}};
    for (const auto& table : tables) {
        char* text = read_table(table.path);
        if (text == nullptr) {
            // A kernel without IPv6 has no tcp6 table, and no IPv6 listener.
            if (table.ipv6 && errno == ENOENT) {
                continue;
            }
            found->table = table.path;
            found->error = errno;
            Logger.error("Could not read %s: %s", table.path, strerror(errno));
            return AGENT_LISTENER_ERR_TABLE;
        }
        int result =
            find_foreign_listener(text, table.ipv6, port, allowed, allowed_count, &found->owner);
        free(text);
        if (result == AGENT_LISTENER_FOREIGN) {
            account_name(found->owner, found->owner_name, sizeof found->owner_name);
            return AGENT_LISTENER_FOREIGN;
        }
    }
    return AGENT_LISTENER_NONE;
}

}  // namespace

const AgentListenerModule AgentListener = {
    .find_foreign_listener = find_foreign_listener,
    .check = check,
};
