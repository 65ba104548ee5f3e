#include <gtest/gtest.h>

#include <string>

#include "cli/desired_state/desired_state.h"

namespace {

std::string refusal(const std::string& text) {
    DesiredState state;
    std::string error;
    EXPECT_FALSE(read_desired_state(text, "f.yaml", &state, &error)) << text;
    return error;
}

DesiredState accepted(const std::string& text) {
    DesiredState state;
    std::string error;
    EXPECT_TRUE(read_desired_state(text, "f.yaml", &state, &error)) << text << "\n" << error;
    return state;
}

const std::string kHead = "version: 1\nservices:\n  web:\n";

// Every kind of bad file, with the exact message.
TEST(DesiredStateReader, RefusesBadFiles) {
    // clang-format off
    const struct { std::string text; std::string message; } cases[] = {
        {"", "f.yaml:1:1: the file is empty; it needs at least \"version: 1\""},
        {"- a\n", "f.yaml:1:1: expected a mapping with version and services, got a list"},
        {"services: {}\n", "f.yaml:1:1: missing \"version: 1\" at the top of the file"},
        {"version: 2\n", "f.yaml:1:10: version: this tool reads version 1, got \"2\""},
        {"version: \"1\"\n", "f.yaml:1:11: version: this tool reads version 1, got \"1\""},
        {"version: 1\nversion: 1\n", "f.yaml:2:1: duplicate key \"version\" (first on line 1)"},
        {"version: 1\nservice: {}\n",
         "f.yaml:2:1: unknown key \"service\" in the file (expected version, services, proxy)"},
        {"version: 1\napi_key: x\n", "f.yaml:2:1: \"api_key\": a desired-state file never holds "
         "API keys; give the key with --api-key-file, SYLVANE_API_KEY or -k"},
        {kHead + "    target: 1.2.3.4:80\n    Key: x\n", "f.yaml:5:5: \"Key\": a desired-state "
         "file never holds API keys; give the key with --api-key-file, SYLVANE_API_KEY or -k"},
        {"version: 1\nservices: [web]\n", "f.yaml:2:11: services: expected a mapping of service "
         "names to their settings, got a list"},
        {kHead + "    target: 1.2.3.4:80\n  web:\n    target: 1.2.3.4:81\n",
         "f.yaml:5:3: duplicate service \"web\" (first on line 3)"},
        {"version: 1\nservices:\n  caf\xe9: {target: 1.2.3.4:80}\n",
         "f.yaml:3:3: plain scalar is malformed UTF8"},
        {"version: 1\nservices:\n  " + std::string(256, 'n') + ": {target: 1.2.3.4:80}\n",
         "f.yaml:3:3: service name \"" + std::string(60, 'n') + "...\" is longer than 255 bytes (256)"},
        {"version: 1\nservices:\n  \"\": {target: 1.2.3.4:80}\n",
         "f.yaml:3:4: a service name must be a non-empty text, not \"\""},
        {kHead + "    virtual_port: 80\n", "f.yaml:3:3: service \"web\" has no \"target\""},
        {kHead + "    target: 1.2.3.4\n", "f.yaml:4:13: target: \"1.2.3.4\" has no port; "
         "expected ip_address:port, for example 127.0.0.1:8080"},
        {kHead + "    target: 1.2.3.4x:80\n", "f.yaml:4:13: target: \"1.2.3.4x:80\": the address "
         "must be four decimal numbers 0-255, as 127.0.0.1"},
        {kHead + "    target: 1.2.3.4:080\n", "f.yaml:4:13: target: \"1.2.3.4:080\": the port "
         "must be a decimal number 1-65535 with nothing after it"},
        {kHead + "    target:\n", "f.yaml:4:5: target: expected ip_address:port, for example "
         "127.0.0.1:8080, got nothing"},
        {kHead + "    target: 1.2.3.4:80\n    virtual_port: \"80\"\n", "f.yaml:5:20: "
         "virtual_port: expected a port number 1-65535, got \"80\""},
        {kHead + "    target: 1.2.3.4:80\n    virtual_port: 65536\n", "f.yaml:5:19: "
         "virtual_port: expected a port number 1-65535, got \"65536\""},
        {kHead + "    target: 1.2.3.4:80\n    enabled: yes\n", "f.yaml:5:14: enabled: expected "
         "true or false, got \"yes\""},
        {kHead + "    target: 1.2.3.4:80\n    clear_services: a.com\n", "f.yaml:5:21: "
         "clear_services: expected a list of domain names and IPv4 addresses, got \"a.com\""},
        {kHead + "    target: 1.2.3.4:80\n    clear_services: [a.com, 10.0.0.5.nip.io]\n",
         "f.yaml:5:29: clear_services: \"10.0.0.5.nip.io\" is neither a domain name nor an IPv4 "
         "address of four decimal numbers 0-255"},
        {kHead + "    target: 1.2.3.4:80\n    port: 80\n", "f.yaml:5:5: unknown key \"port\" in "
         "service \"web\" (expected target, virtual_port, clear_services, enabled)"},
        {"version: 1\nproxy:\n  type: HTTP\n", "f.yaml:3:3: proxy has no \"address\""},
        {"version: 1\nproxy: {address: 1.2.3.4:3128, type: FTP}\n", "f.yaml:2:38: proxy type: "
         "expected HTTP, HTTPS or Socks5, got \"FTP\""},
        {"version: 1\nproxy: {address: 1.2.3.4:3128, type: HTTP, enabled: 1}\n", "f.yaml:2:53: "
         "proxy enabled: expected true or false, got \"1\""},
        {"version: 1\nservices: {a: &x {target: 1.2.3.4:80}, b: *x}\n",
         "f.yaml:2:18: anchors are not supported"},
        {"version: !!int 1\n", "f.yaml:1:16: tags are not supported"},
        {"version: 1\n---\nversion: 1\n", "f.yaml:2:1: only one document is read; remove the second"},
        {"version: 1\nservices: {web: {target: 1.2.3.4:80}\n",
         "f.yaml:3:1: missing comma in flow mapping"},
        {"{\"version\": 1, \"services\": {\"web\": {\"target\": \"1.2.3.4:80\", \"enabled\": \"true\"}}}",
         "f.yaml:1:73: enabled: expected true or false, got \"true\""},
        // JSON read the fast way, refused, then located through the YAML reading.
        {"{\"version\": 1, \"version\": 1}", "f.yaml:1:17: duplicate key \"version\" (first on line 1)"},
        {"{\"version\": 1.0}", "f.yaml:1:13: version: this tool reads version 1, got \"1.0\""},
    };
    // clang-format on
    for (const auto& c : cases) {
        EXPECT_EQ(refusal(c.text), c.message) << c.text;
    }
}

TEST(DesiredStateReader, ReadsGoodFiles) {
    DesiredState state = accepted(
        "version: 1\n"
        "services:\n"
        "  web:\n"
        "    target: 127.0.0.1:8080\n"
        "    virtual_port: 80\n"
        "    clear_services: [intranet.example, 10.0.0.7]\n"
        "    enabled: true\n"
        "  \"back up\": {target: \"10.0.0.2:22\", enabled: False}\n"
        "proxy:\n  address: 10.0.0.1:3128\n  type: socks5\n");
    ASSERT_EQ(state.services.size(), 2u);
    const DesiredService& web = state.services[0];
    EXPECT_EQ(web.name, "web");
    EXPECT_EQ(web.target, (Endpoint{.address = "127.0.0.1", .port = 8080}));
    EXPECT_EQ(web.virtual_port, 80);
    EXPECT_EQ(web.clear_services, (std::vector<std::string>{"intranet.example", "10.0.0.7"}));
    EXPECT_EQ(web.enabled, true);
    const DesiredService& backup = state.services[1];
    EXPECT_EQ(backup.name, "back up");
    EXPECT_EQ(backup.effective_virtual_port(), 22);
    EXPECT_FALSE(backup.virtual_port.has_value());
    EXPECT_TRUE(backup.clear_services.empty());
    EXPECT_EQ(backup.enabled, false);
    ASSERT_TRUE(state.proxy.has_value());
    EXPECT_EQ(state.proxy->type, "SOCKS5");
    EXPECT_EQ(state.proxy->address.text(), "10.0.0.1:3128");
    EXPECT_FALSE(state.proxy->enabled.has_value());

    // JSON, read the fast way, gives what its YAML reading gives.
    DesiredState json = accepted(
        "{\"version\": 1, \"services\": {\"web\": {\"target\": \"127.0.0.1:8080\", "
        "\"virtual_port\": 80, \"clear_services\": [\"intranet.example\", \"10.0.0.7\"], "
        "\"enabled\": true}, \"back up\": {\"target\": \"10.0.0.2:22\", \"enabled\": false}}, "
        "\"proxy\": {\"address\": \"10.0.0.1:3128\", \"type\": \"socks5\"}}");
    ASSERT_EQ(json.services.size(), 2u);
    EXPECT_EQ(json.services[0].clear_services, web.clear_services);
    EXPECT_EQ(json.services[0].virtual_port, 80);
    EXPECT_EQ(json.services[1].name, "back up");
    EXPECT_EQ(json.services[1].enabled, false);
    EXPECT_EQ(json.proxy->type, "SOCKS5");
    EXPECT_FALSE(json.proxy->enabled.has_value());

    // No services, an empty mapping, null, and JSON all read as nothing managed.
    for (const char* text : {"version: 1\n", "version: 1\nservices: {}\n",
                             "version: 1\nservices:\nproxy: ~\n", "{\"version\": 1}"}) {
        DesiredState empty = accepted(text);
        EXPECT_TRUE(empty.services.empty() && !empty.proxy.has_value()) << text;
    }
}

TEST(DesiredStateReader, ReadsFilesAndNamesThem) {
    DesiredState state;
    std::string error;
    EXPECT_FALSE(read_desired_state_file("/nonexistent/x.yaml", &state, &error));
    EXPECT_EQ(error, "/nonexistent/x.yaml: No such file or directory");
    EXPECT_FALSE(read_desired_state_file("/", &state, &error));
    EXPECT_EQ(error, "/: Is a directory");
}

}  // namespace
