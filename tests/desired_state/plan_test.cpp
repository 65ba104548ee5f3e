#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "cli/desired_state/plan.h"
#include "cli/desired_state/render.h"
#include "plan_of.h"

namespace {

DesiredState desired(const std::string& yaml) {
    DesiredState state;
    std::string error;
    EXPECT_TRUE(read_desired_state("version: 1\n" + yaml, "t", &state, &error)) << error;
    return state;
}

// The plan's changes as JSON lines (the contract's objects).
std::vector<std::string> changes(const Plan& plan) {
    std::vector<std::string> lines;
    for (const Change& change : plan.changes) {
        lines.push_back(render_change_json(change));
    }
    return lines;
}

const AgentService kWeb{.name = "web",
                        .status = "disconnected",
                        .ip_address = "1.2.3.4",
                        .port = 80,
                        .virtual_port = 80};

AgentService web_in(const char* status) {
    AgentService service = kWeb;
    service.status = status;
    return service;
}

// One row per action of a service: the file's entry, what the agent has.
TEST(Plan, ServiceActions) {
    const std::string before = R"("before": {"target": "1.2.3.4:80", "virtual_port": 80, )";
    // clang-format off
    const struct { const char* file; std::vector<AgentService> agent; std::vector<std::string> expected; } cases[] = {
        {"web: {target: 1.2.3.4:80}", {},
         {R"({"object": "service", "service": "web", "action": "create", "before": null, "after": {"target": "1.2.3.4:80", "virtual_port": 80}})"}},
        {"web: {target: 1.2.3.4:80, virtual_port: 8080, enabled: true}", {},
         {R"({"object": "service", "service": "web", "action": "create", "before": null, "after": {"target": "1.2.3.4:80", "virtual_port": 8080, "enabled": true}})",
          R"({"object": "service", "service": "web", "action": "enable", "before": {"enabled": false}, "after": {"enabled": true}})"}},
        {"web: {target: 1.2.3.5:81}", {kWeb},
         {R"({"object": "service", "service": "web", "action": "update", "before": {"target": "1.2.3.4:80", "virtual_port": 80}, "after": {"target": "1.2.3.5:81", "virtual_port": 81}})"}},
        {"web: {target: 1.2.3.4:80, virtual_port: 443}", {kWeb},
         {R"({"object": "service", "service": "web", "action": "update", "before": {"virtual_port": 80}, "after": {"virtual_port": 443}})"}},
        {"web: {target: 1.2.3.4:80, enabled: true}", {kWeb},
         {R"({"object": "service", "service": "web", "action": "enable", "before": {"enabled": false, "status": "disconnected"}, "after": {"enabled": true}})"}},
        {"web: {target: 1.2.3.4:80, enabled: true}", {web_in("error")},
         {R"({"object": "service", "service": "web", "action": "enable", "before": {"status": "error"}, "after": {"enabled": true}})"}},
        {"web: {target: 1.2.3.4:80, enabled: false}", {web_in("connected")},
         {R"({"object": "service", "service": "web", "action": "disable", "before": {"enabled": true, "status": "connected"}, "after": {"enabled": false}})"}},
        {"web: {target: 1.2.3.4:8, enabled: false}", {web_in("in progress")},
         {R"({"object": "service", "service": "web", "action": "update", "before": {"target": "1.2.3.4:80", "virtual_port": 80}, "after": {"target": "1.2.3.4:8", "virtual_port": 8}})",
          R"({"object": "service", "service": "web", "action": "disable", "before": {"enabled": true, "status": "in progress"}, "after": {"enabled": false}})"}},
        {"web: {target: 1.2.3.4:80, enabled: true, clear_services: [a.example]}", {web_in("in progress")},
         {R"({"object": "service", "service": "web", "action": "unchanged", )" + before + R"("enabled": true, "status": "in progress"}, "after": {"target": "1.2.3.4:80", "virtual_port": 80, "enabled": true}})"}},
        {"web: {target: 1.2.3.4:80}", {web_in("error")},
         {R"({"object": "service", "service": "web", "action": "unchanged", )" + before + R"("status": "error"}, "after": {"target": "1.2.3.4:80", "virtual_port": 80}})"}},
    };
    // clang-format on
    for (const auto& c : cases) {
        Plan plan = plan_of(desired(std::string("services:\n  ") + c.file + "\n"),
                            AgentSnapshot{.services = c.agent}, false);
        EXPECT_EQ(changes(plan), c.expected) << c.file;
    }
}

TEST(Plan, ServicesTheFileDoesNotName) {
    AgentSnapshot agent{.services = {web_in("connected"), kWeb}};  // listed twice: planned once
    const std::string unmanaged =
        R"({"object": "service", "service": "web", "action": "not_managed", "before": {"target": "1.2.3.4:80", "virtual_port": 80, "enabled": true, "status": "connected"}, "after": null})";
    EXPECT_EQ(changes(plan_of(desired(""), agent, false)), std::vector<std::string>{unmanaged});
    const std::string removed =
        R"({"object": "service", "service": "web", "action": "remove", "before": {"target": "1.2.3.4:80", "virtual_port": 80, "enabled": true, "status": "connected"}, "after": null})";
    EXPECT_EQ(changes(plan_of(desired("services: {}"), agent, true)),
              std::vector<std::string>{removed});
    // As many entries as the file has, in place, but another name: no pairing.
    Plan plan = plan_of(desired("services:\n  db: {target: 1.2.3.4:80}\n"),
                        AgentSnapshot{.services = {web_in("connected")}}, false);
    ASSERT_EQ(plan.changes.size(), 2u);
    EXPECT_EQ(plan.changes[0].action, ChangeAction::create);
    EXPECT_EQ(plan.changes[1].action, ChangeAction::not_managed);
}

TEST(Plan, ProxyActions) {
    const AgentProxy agent{
        .type = "Socks5", .ip_address = "10.0.0.1", .port = 3128, .enabled = false};
    // clang-format off
    const struct { const char* file; std::vector<std::string> expected; } cases[] = {
        {"{address: 10.0.0.1:3128, type: Socks5}",
         {R"({"object": "proxy", "action": "unchanged", "before": {"address": "10.0.0.1:3128", "type": "Socks5", "enabled": false}, "after": {"address": "10.0.0.1:3128", "type": "SOCKS5"}})"}},
        {"{address: 10.0.0.2:3128, type: HTTP, enabled: true}",
         {R"({"object": "proxy", "action": "update", "before": {"address": "10.0.0.1:3128", "type": "Socks5"}, "after": {"address": "10.0.0.2:3128", "type": "HTTP"}})",
          R"({"object": "proxy", "action": "enable", "before": {"enabled": false}, "after": {"enabled": true}})"}},
        {"{address: 10.0.0.1:3128, type: socks5, enabled: false}",
         {R"({"object": "proxy", "action": "unchanged", "before": {"address": "10.0.0.1:3128", "type": "Socks5", "enabled": false}, "after": {"address": "10.0.0.1:3128", "type": "SOCKS5", "enabled": false}})"}},
    };
    // clang-format on
    for (const auto& c : cases) {
        Plan plan = plan_of(desired(std::string("proxy: ") + c.file + "\n"),
                            AgentSnapshot{.proxy = agent}, false);
        EXPECT_EQ(changes(plan), c.expected) << c.file;
    }
}

// Creates, updates, enables and disables, removes, then unchanged and not
// managed; the proxy with the updates, the enables and the unchanged.
TEST(Plan, Order) {
    DesiredState state = desired(
        "services:\n"
        "  same: {target: 1.2.3.4:80}\n"
        "  toggled: {target: 1.2.3.4:80, enabled: true}\n"
        "  moved: {target: 1.2.3.4:81, enabled: true}\n"
        "  new: {target: 1.2.3.4:80, enabled: true}\n"
        "proxy: {address: 10.0.0.1:1, type: HTTP, enabled: true}\n");
    AgentSnapshot agent{.services = {{.name = "gone", .status = "connected"},
                                     {.name = "moved",
                                      .status = "connected",
                                      .ip_address = "1.2.3.4",
                                      .port = 80,
                                      .virtual_port = 80},
                                     {.name = "toggled",
                                      .status = "disconnected",
                                      .ip_address = "1.2.3.4",
                                      .port = 80,
                                      .virtual_port = 80},
                                     {.name = "same",
                                      .status = "error",
                                      .ip_address = "1.2.3.4",
                                      .port = 80,
                                      .virtual_port = 80},
                                     {.name = "other", .status = "connected"}},
                        .proxy = AgentProxy{.type = "HTTP", .ip_address = "10.0.0.1", .port = 2}};
    for (bool prune : {false, true}) {
        Plan plan = plan_of(state, agent, prune);
        std::vector<std::string> order;
        for (const Change& change : plan.changes) {
            order.push_back(std::string(change_action_name(change.action)) + " " +
                            (change.object == ChangeObject::proxy ? "(proxy)" : change.service));
        }
        std::vector<std::string> expected{"create new",     "update moved", "update (proxy)",
                                          "enable toggled", "enable new",   "enable (proxy)",
                                          "unchanged same"};
        if (prune) {
            expected.insert(expected.begin() + 6, {"remove gone", "remove other"});
        } else {
            expected.insert(expected.end(), {"not_managed gone", "not_managed other"});
        }
        EXPECT_EQ(order, expected) << prune;
        EXPECT_EQ(plan.summary.of(ChangeAction::enable), 3);
        EXPECT_TRUE(plan.summary.pending());
    }
}

// However the listing leaves the file's order (late, at once, with a
// service the file does not name, with a name listed again at another
// target), the plan reads as in order: each service planned once, from its
// first entry, the groups in file order, whether unchanged services are
// built in full or kept as names.
TEST(Plan, ListingOutOfFileOrder) {
    const DesiredState state = desired(
        "services:\n"
        "  a: {target: 1.2.3.4:81}\n"
        "  b: {target: 1.2.3.4:80}\n"
        "  c: {target: 1.2.3.4:80, enabled: true}\n"
        "  d: {target: 1.2.3.4:80}\n"
        "  e: {target: 1.2.3.4:80, enabled: true}\n");
    const auto at = [](const char* name, int64_t port) {
        return AgentService{.name = name,
                            .status = "disconnected",
                            .ip_address = "1.2.3.4",
                            .port = port,
                            .virtual_port = port};
    };
    const AgentService a = at("a", 80), a_again = at("a", 81), b = at("b", 80), c = at("c", 80),
                       d = at("d", 80), x = at("x", 80), x_again = at("x", 81);
    const std::vector<AgentService> listings[] = {
        {a, b, c, d},    {a, c, x, b, d, a_again, x_again}, {d, c, b, a},
        {a, b, c, d, x}, {x, a, b, c, d, x_again},          {a, b, c, d, a_again, c},
    };
    for (const std::vector<AgentService>& listing : listings) {
        const bool unnamed = std::any_of(listing.begin(), listing.end(),
                                         [](const AgentService& s) { return s.name == "x"; });
        const std::string expected =
            std::string(
                "+ create service e: target 1.2.3.4:80, virtual_port 80, enabled true\n"
                "~ update service a: target 1.2.3.4:80 -> 1.2.3.4:81, virtual_port 80 -> 81\n"
                "~ enable service c (was disconnected)\n"
                "~ enable service e (new)\n"
                "  unchanged service b\n"
                "  unchanged service d\n") +
            (unnamed
                 ? "  not managed service x: target 1.2.3.4:80, virtual_port 80, enabled false, "
                   "status disconnected\n"
                 : "") +
            "Plan: 1 to create, 1 to update, 2 to enable, 0 to disable, 0 to remove; 2 "
            "unchanged, " +
            (unnamed ? "1" : "0") + " not managed.\n";
        for (bool in_full : {false, true}) {
            EXPECT_EQ(render_plan_text(
                          plan_of(state, AgentSnapshot{.services = listing}, false, in_full)),
                      expected)
                << listing.size() << " " << listing[1].name << in_full;
        }
    }
}

}  // namespace
