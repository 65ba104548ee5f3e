#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "cli/desired_state/plan.h"
#include "cli/desired_state/render.h"
#include "plan_of.h"

namespace {

// A snapshot with every status, awkward names and a configured proxy.
AgentSnapshot awkward_agent() {
    AgentSnapshot agent;
    const char* names[] = {"web",
                           "true",
                           "80",
                           "a b: c",
                           "line\nbreak\x1b]0;x\x07",
                           "\xe2\x80\xae"
                           "evil",
                           "caf\xc3\xa9 \"q\" \\",
                           "\xef\xbf\xbe\xef\xbb\xbf"};
    const char* statuses[] = {"connected", "disconnected", "in progress", "error", "weird"};
    int port = 1;
    for (const char* name : names) {
        agent.services.push_back({.name = name,
                                  .status = statuses[port % 5],
                                  .ip_address = "10.0.0." + std::to_string(port),
                                  .port = port,
                                  .virtual_port = port * 100});
        port++;
    }
    agent.proxy = AgentProxy{.type = "SOCKS5", .ip_address = "10.0.0.1", .port = 3128};
    return agent;
}

// An export read back and planned against the same agent changes nothing,
// in YAML and in JSON.
TEST(DesiredStateRender, ExportRoundTrip) {
    const AgentSnapshot agent = awkward_agent();
    for (const std::string& text : {render_state_yaml(agent), render_state_json(agent)}) {
        DesiredState state;
        std::string error;
        ASSERT_TRUE(read_desired_state(text, "export", &state, &error)) << error << "\n" << text;
        EXPECT_EQ(state.services.size(), agent.services.size());
        ASSERT_TRUE(state.proxy.has_value());
        Plan plan = plan_of(state, agent, true);
        EXPECT_FALSE(plan.summary.pending()) << render_plan_text(plan) << text;
        EXPECT_EQ(plan.summary.of(ChangeAction::unchanged), 9) << text;
    }
}

// Unchanged services given by name only read as they do in full, wherever
// the updates, removes, proxy and not managed entries around them fall.
TEST(DesiredStateRender, UnchangedNamesReadAsInFull) {
    const AgentSnapshot agent = awkward_agent();
    DesiredState all;
    std::string error;
    ASSERT_TRUE(read_desired_state(render_state_yaml(agent), "export", &all, &error)) << error;
    DesiredState some = all;
    some.services.resize(4);
    some.services[0].target.port++;
    DesiredState no_proxy = all;
    no_proxy.proxy.reset();
    for (const DesiredState* desired : {&all, &some, &no_proxy}) {
        for (bool prune : {false, true}) {
            const Plan brief = plan_of(*desired, agent, prune, false);
            const Plan full = plan_of(*desired, agent, prune, true);
            EXPECT_FALSE(brief.unchanged_names.empty());
            EXPECT_EQ(render_plan_text(brief), render_plan_text(full));
        }
    }
}

TEST(DesiredStateRender, ExportText) {
    AgentSnapshot agent{.services = {{.name = "web",
                                      .status = "connected",
                                      .ip_address = "127.0.0.1",
                                      .port = 8080,
                                      .virtual_port = 80},
                                     {.name = "no",
                                      .status = "error",
                                      .ip_address = "127.0.0.1",
                                      .port = 22,
                                      .virtual_port = 22}},
                        .proxy = AgentProxy{.type = "HTTP", .ip_address = "0.0.0.0"}};
    EXPECT_EQ(render_state_yaml(agent),
              "# The agent's services and proxy as a desired-state file. Clear services and\n"
              "# API keys cannot be read back from the agent, so they are not here.\n"
              "version: 1\n"
              "services:\n"
              "  web:\n    target: 127.0.0.1:8080\n    virtual_port: 80\n    enabled: true\n"
              "  \"no\":\n    target: 127.0.0.1:22\n    virtual_port: 22\n"
              "# proxy: not configured on the agent\n");
    EXPECT_EQ(
        render_export_json(agent),
        R"({"version": 1, "ok": true, "state": {"version": 1, "services": {"web": {"target": "127.0.0.1:8080", "virtual_port": 80, "enabled": true}, "no": {"target": "127.0.0.1:22", "virtual_port": 22}}}})");
    EXPECT_EQ(render_state_yaml(AgentSnapshot{}),
              "# The agent's services and proxy as a desired-state file. Clear services and\n"
              "# API keys cannot be read back from the agent, so they are not here.\n"
              "version: 1\nservices: {}\n");
}

// Every action in the human plan, the agent's text escaped, and the JSON
// document around the changes.
TEST(DesiredStateRender, PlanTexts) {
    DesiredState state;
    std::string error;
    ASSERT_TRUE(
        read_desired_state("version: 1\nservices:\n"
                           "  new: {target: 1.2.3.4:80, enabled: true}\n"
                           "  moved: {target: 1.2.3.4:81, enabled: false}\n"
                           "  same: {target: 1.2.3.4:80}\n"
                           "proxy: {address: 10.0.0.1:1, type: HTTP}\n",
                           "t", &state, &error))
        << error;
    AgentSnapshot agent{.services = {{.name = "moved",
                                      .status = "connected",
                                      .ip_address = "1.2.3.4",
                                      .port = 80,
                                      .virtual_port = 80},
                                     {.name = "same",
                                      .status = "disconnected",
                                      .ip_address = "1.2.3.4",
                                      .port = 80,
                                      .virtual_port = 80},
                                     {.name = "evil\x1b[2J",
                                      .status = "in\nprogress",
                                      .ip_address = "1.2.3.4",
                                      .port = 9,
                                      .virtual_port = 9}},
                        .proxy = AgentProxy{.type = "socks5", .ip_address = "10.0.0.1", .port = 1}};
    Plan plan = plan_of(state, agent, true);
    EXPECT_EQ(
        render_plan_text(plan),
        "+ create service new: target 1.2.3.4:80, virtual_port 80, enabled true\n"
        "~ update service moved: target 1.2.3.4:80 -> 1.2.3.4:81, virtual_port 80 -> 81\n"
        "~ update proxy: type socks5 -> HTTP\n"
        "~ enable service new (new)\n"
        "~ disable service moved (was connected)\n"
        "- remove service evil\\x1b[2J: target 1.2.3.4:9, virtual_port 9, status in\\x0aprogress\n"
        "  unchanged service same\n"
        "Plan: 1 to create, 2 to update, 1 to enable, 1 to disable, 1 to remove; 1 unchanged, 0 "
        "not managed.\n");
    EXPECT_EQ(render_plan_text(plan_of(DesiredState{}, agent, false)).substr(0, 2), "  ");
    EXPECT_NE(render_plan_text(plan_of(DesiredState{}, agent, false))
                  .find("No changes: the agent matches the file (0 unchanged, 3 not managed).\n"),
              std::string::npos);
    const std::string json = render_plan_json(plan);
    EXPECT_EQ(
        json.rfind(R"({"version": 1, "ok": true, "pending": true, "changes": [{"object": ")", 0),
        0u);
    EXPECT_NE(
        json.find(
            R"(], "summary": {"create": 1, "update": 2, "enable": 1, "disable": 1, "remove": 1, "unchanged": 1, "not_managed": 0}})"),
        std::string::npos);
}

// An unchanged name is escaped whatever its length and wherever a byte
// that is not printable ASCII falls in it, next to names that are.
TEST(DesiredStateRender, UnchangedNamesEscapedAnywhere) {
    for (const char* bad : {"\x1f", "\x7f", "\x80", "\xff", " ", "~"}) {
        const unsigned char byte = static_cast<unsigned char>(*bad);
        char escape[8];
        snprintf(escape, sizeof escape, "\\x%02x", byte);
        const std::string shown = byte >= 0x20 && byte < 0x7f ? std::string(bad) : escape;
        for (size_t length = 1; length <= 17; length++) {
            for (size_t place = 0; place < length; place++) {
                std::string name(length, 'a');
                name[place] = *bad;
                std::string expected = "  unchanged service plain\n  unchanged service " +
                                       std::string(place, 'a') + shown +
                                       std::string(length - place - 1, 'a') + "\n";
                Plan plan;
                plan.unchanged_names = {"plain", name};
                EXPECT_EQ(render_plan_text(plan).substr(0, expected.size()), expected)
                    << length << " " << place << " " << int(byte);
            }
        }
    }
}

}  // namespace
