#include <gtest/gtest.h>

#include <string>

#include "cli/preflight/agent_listener.h"

namespace {

// Rows as the kernel prints them on this (little-endian) machine; port
// 11038 is 2B1E. The table's header line is skipped like any non-row.
const std::string kHeader =
    "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout "
    "inode\n";
std::string row(const std::string& local, const char* state, const char* uid) {
    return "   7: " + local + " 00000000:0000 " + state +
           " 00000000:00000000 00:00000000 00000000  " + uid + "        0 4711 1 0 100 0 0 10 0\n";
}
const std::string kAny6 = "00000000000000000000000000000000:2B1E";
const std::string kMapped = "0000000000000000FFFF00000100007F:2B1E";

TEST(AgentListener, OnlyForeignListenersReachingLoopbackCount) {
    const uid_t kAllowed[] = {0, 1000, 1002};  // root, the user, --agent-uid
    // clang-format off
    const struct { std::string rows; bool ipv6; int result; uid_t owner; } cases[] = {
        {"", false, AGENT_LISTENER_NONE, 0},
        {row("0100007F:2B1E", "0A", "1001"), false, AGENT_LISTENER_FOREIGN, 1001},
        {row("00000000:2B1E", "0A", "1001"), false, AGENT_LISTENER_FOREIGN, 1001},
        {row("0100007F:2B1E", "0A", "0") + row("0100007F:2B1E", "0A", "1000") +
         row("0100007F:2B1E", "0A", "1002"), false, AGENT_LISTENER_NONE, 0},
        {row("0100007F:2B1E", "0A", "1000") + row("00000000:2B1E", "0A", "33"), false,
         AGENT_LISTENER_FOREIGN, 33},
        {row("0100007F:2B1E", "01", "1001"), false, AGENT_LISTENER_NONE, 0},   // established
        {row("0200007F:2B1E", "0A", "1001"), false, AGENT_LISTENER_NONE, 0},   // 127.0.0.2
        {row("0100007F:2B1F", "0A", "1001"), false, AGENT_LISTENER_NONE, 0},   // port 11039
        {row(kAny6, "0A", "1001"), true, AGENT_LISTENER_FOREIGN, 1001},
        {row(kMapped, "0A", "65534"), true, AGENT_LISTENER_FOREIGN, 65534},
        {row("00000000000000000000000001000000:2B1E", "0A", "1001"), true, AGENT_LISTENER_NONE, 0},
        {row(kAny6, "0A", "1001"), false, AGENT_LISTENER_NONE, 0},             // not a v4 row
        // A cut row must not borrow the next row's slot number ("7:") as its uid.
        {"   0: 0100007F:2B1E 00000000:0000 0A 00000000:00000000 00:00000000 00000000\n" +
         row("0100007F:0050", "0A", "0"), false, AGENT_LISTENER_NONE, 0},
    };
    // clang-format on
    for (const auto& c : cases) {
        uid_t owner = 0;
        std::string table = kHeader + c.rows;
        EXPECT_EQ(
            AgentListener.find_foreign_listener(table.c_str(), c.ipv6, 11038, kAllowed, 3, &owner),
            c.result)
            << c.rows;
        EXPECT_EQ(owner, c.owner) << c.rows;
    }
}

}  // namespace
