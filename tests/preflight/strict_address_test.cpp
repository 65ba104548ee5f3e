#include <gtest/gtest.h>

#include <string>

#include "cli/preflight/strict_address.h"

namespace {

TEST(StrictAddress, Ipv4) {
    // clang-format off
    const struct { const char* text; bool ok; } cases[] = {
        {"127.0.0.1", true}, {"0.0.0.0", true}, {"255.255.255.255", true}, {"10.20.30.40", true},
        {"256.0.0.1", false}, {"300.1.1.1", false}, {"-1.0.0.0", false}, {"010.0.0.1", false},
        {"1.2.3.4x", false}, {"1.2.3.4.com", false}, {"1.2.3.4.", false}, {"1.2.3", false},
        {" 1.2.3.4", false}, {"1.2.3.4 ", false}, {"+1.2.3.4", false}, {"1..3.4", false},
        {"", false}, {"1.2.3.4.5", false}, {"99999.1.1.1", false}, {"a.b.c.d", false},
    };
    // clang-format on
    for (const auto& c : cases) {
        std::array<uint8_t, 4> octets{9, 9, 9, 9};
        EXPECT_EQ(parse_strict_ipv4(c.text, &octets), c.ok) << c.text;
        if (!c.ok) {
            EXPECT_EQ(octets[0], 9) << "written on failure: " << c.text;
        }
    }
    std::array<uint8_t, 4> octets{};
    ASSERT_TRUE(parse_strict_ipv4("10.20.30.255", &octets));
    EXPECT_EQ(octets, (std::array<uint8_t, 4>{10, 20, 30, 255}));
}

TEST(StrictAddress, Ports) {
    // clang-format off
    const struct { const char* text; bool ok; uint16_t port; } cases[] = {
        {"80", true, 80}, {"1", true, 1}, {"65535", true, 65535}, {"0", false, 0},
        {"65536", false, 0}, {"080", false, 0}, {"80abc", false, 0}, {"+443", false, 0},
        {" 80", false, 0}, {"-5", false, 0}, {"", false, 0}, {"4294967377", false, 0},
    };
    // clang-format on
    for (const auto& c : cases) {
        uint16_t port = 0;
        EXPECT_EQ(parse_strict_port(c.text, &port), c.ok) << c.text;
        EXPECT_EQ(port, c.port) << c.text;
    }
}

TEST(StrictAddress, Endpoints) {
    // clang-format off
    const struct { const char* text; EndpointError error; const char* address; uint16_t port; } cases[] = {
        {"1.2.3.4:80", EndpointError::none, "1.2.3.4", 80},
        {"1.2.3.4", EndpointError::missing_port, "", 0},
        {"1.2.3.4:", EndpointError::bad_port, "", 0},
        {"1.2.3.4:80:90", EndpointError::bad_port, "", 0},
        {"1.2.3.4x:80", EndpointError::bad_address, "", 0},
        {":80", EndpointError::bad_address, "", 0},
        {"300.1.1.1:80", EndpointError::bad_address, "", 0},
    };
    // clang-format on
    for (const auto& c : cases) {
        StrictEndpoint endpoint{};
        EXPECT_EQ(parse_strict_endpoint(c.text, &endpoint), c.error) << c.text;
        EXPECT_EQ(std::string(endpoint.address), c.address) << c.text;
        EXPECT_EQ(endpoint.port, c.port) << c.text;
    }
}

TEST(StrictAddress, ClearServices) {
    const std::string label63(63, 'a');
    const std::string long_name = label63 + "." + label63 + "." + label63 + "." + label63;  // 255
    // clang-format off
    const struct { std::string text; bool ok; } cases[] = {
        {"intranet.example", true}, {"10.0.0.7", true}, {"localhost", true}, {"a-b.c9", true},
        {"1.2.example", true}, {"host.1a", true}, {label63 + ".com", true},
        {"10.0.0.5.nip.io", false}, {"300.1.1.1", false}, {"010.1.1.1", false}, {"1.2.3", false},
        {"1.2.3.4.5", false}, {"a..b", false}, {".a", false}, {"a.", false}, {"-a.com", false},
        {"a-.com", false}, {"a_b.com", false}, {"", false}, {label63 + "a.com", false},
        {long_name.substr(0, 254), false}, {"a b", false},
    };
    // clang-format on
    for (const auto& c : cases) {
        EXPECT_EQ(is_strict_clear_service(c.text), c.ok) << c.text;
    }
}

TEST(StrictAddress, ServiceNames) {
    // clang-format off
    const struct { std::string text; bool ok; } cases[] = {
        {"web", true}, {"caf\xc3\xa9", true}, {"\xf0\x9f\x90\xb1", true}, {std::string(255, 'n'), true},
        {"", false}, {std::string(256, 'n'), false}, {"caf\xe9", false}, {"\xc0\xaf", false},
        {"\xed\xa0\x80", false}, {"\xf4\x90\x80\x80", false}, {"\xe2\x82", false}, {"\x80", false},
    };
    // clang-format on
    for (const auto& c : cases) {
        EXPECT_EQ(is_strict_service_name(c.text), c.ok) << testing::PrintToString(c.text);
    }
}

}  // namespace
