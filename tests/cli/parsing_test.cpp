#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "cli/preflight/address.h"

namespace {

// The parse-and-reprint rule: octets wrap in a signed byte and the reprint
// must start the text. "-" marks a destination left unwritten.
// clang-format off
const struct { const char* text; int result; const char* stored; } kAddresses[] = {
    {"127.0.0.1", 0, "127.0.0.1"}, {"255.255.255.255", 0, "255.255.255.255"},
    {"1.2.3.4x", 0, "1.2.3.4"}, {"1.2.3.4.com", 0, "1.2.3.4"}, {"256.0.0.1", -1, "0.0.0.1"},
    {"300.1.1.1", -1, "44.1.1.1"}, {"-1.0.0.0", -1, "255.0.0.0"}, {"010.0.0.1", -1, "10.0.0.1"},
    {" 1.2.3.4", -1, "1.2.3.4"}, {"1.2.3", -1, "-"}, {"a.b.c.d", -1, "-"}, {nullptr, -1, "-"},
};
// clang-format on

TEST(Parsing, IpAddresses) {
    for (const auto& c : kAddresses) {
        char destination[IPV4_TEXT_SIZE] = "-";
        EXPECT_EQ(Parsing.parse_ip_address(c.text, destination), c.result) << c.text;
        EXPECT_STREQ(destination, c.stored) << c.text;
    }
}

TEST(Parsing, Ports) {
    // clang-format off
    const struct { const char* text; int result; uint16_t port; } cases[] = {
        {"80", 0, 80}, {"1", 0, 1}, {"65535", 0, 65535}, {"80abc", 0, 80}, {" +443", 0, 443},
        {"0", -1, 0}, {"65536", -1, 0}, {"-5", -1, 0}, {"abc", -1, 0}, {nullptr, -1, 0},
    };
    // clang-format on
    for (const auto& c : cases) {
        uint16_t port = 0;
        EXPECT_EQ(Parsing.parse_port(c.text, &port), c.result) << c.text;
        EXPECT_EQ(port, c.port) << c.text;
    }
}

TEST(Parsing, AddressAndPort) {
    // clang-format off
    const struct { const char* text; int result; const char* address; uint16_t port; } cases[] = {
        {"1.2.3.4:80", 0, "1.2.3.4", 80}, {"1.2.3.4:80:90", 0, "1.2.3.4", 80},
        {"1.2.3.4x:80", 0, "1.2.3.4", 80}, {"1.2.3.4:0", -1, "1.2.3.4", 0},
        {"1.2.3.4:", -1, "1.2.3.4", 0}, {"1.2.3.4", -1, "1.2.3.4", 0},
        {"300.1.1.1:80", -1, "44.1.1.1", 0}, {":80", -1, "", 0}, {nullptr, -1, "", 0},
    };
    // clang-format on
    for (const auto& c : cases) {
        char address[IPV4_TEXT_SIZE] = "";
        uint16_t port = 0;
        EXPECT_EQ(Parsing.parse_ip_address_and_port(c.text, address, &port), c.result) << c.text;
        EXPECT_STREQ(address, c.address) << c.text;
        EXPECT_EQ(port, c.port) << c.text;
    }
}

TEST(Parsing, ClearServicesKeepOrderAndStoredForm) {
    const std::string label63(63, 'a');
    // clang-format off
    const struct { std::string text; int result; std::string stored; } cases[] = {
        {"a.com,127.0.0.1,b", 0, "a.com|127.0.0.1|b|"}, {"010.1.1.1", 0, "10.1.1.1|"},
        {"firstDomainName.net", 0, "firstDomainName.net|"}, {"1.2.3.4.com,x-y.org", 0, "1.2.3.4|x-y.org|"},
        {label63 + ".com", 0, label63 + ".com|"}, {"a.com,", -1, "a.com|"}, {"a,,b", -1, "a|"},
        {"-a.com", -1, ""}, {label63 + "a.com", -1, ""}, {"a..b", -1, ""}, {"a_b.com", -1, ""},
        {"", -1, ""},
    };
    // clang-format on
    for (const auto& c : cases) {
        List* list = LinkedList.create(nullptr);
        ASSERT_NE(list, nullptr);
        EXPECT_EQ(Parsing.parse_clear_services(c.text.c_str(), list), c.result) << c.text;
        std::string stored;
        for (ListEntry* entry = list->head; entry != nullptr; entry = entry->next) {
            stored += static_cast<char*>(entry->item) + std::string("|");
        }
        EXPECT_EQ(stored, c.stored) << c.text;
        LinkedList.free(list, free);
    }
    EXPECT_EQ(Parsing.parse_clear_services(nullptr, nullptr), -1);
}

TEST(Parsing, DomainNamesAndStrictFormat) {
    const std::string label63(63, 'b');
    const std::string longest =
        label63 + "." + label63 + "." + label63 + "." + std::string(61, 'c');
    ASSERT_EQ(longest.size(), 253u);
    // clang-format off
    const std::pair<std::string, int> names[] = {
        {"a", 0}, {"a-b.c0", 0}, {longest, 0}, {longest + "c", -1}, {"", -1}, {".a", -1},
        {"a.", -1}, {"a..b", -1}, {"-a", -1}, {"a-", -1}, {"a b", -1}, {label63 + "b", -1},
    };
    const std::pair<const char*, int> addresses[] = {
        {"1.2.3.4", 0}, {"010.0.0.1", 0}, {"1.2.3.4x", -1}, {"256.1.1.1", -1}, {"1.2.3", -1},
        {" 1.2.3.4", -1}, {nullptr, -1},
    };
    // clang-format on
    for (const auto& [name, result] : names) {
        EXPECT_EQ(Parsing.is_valid_domain_name(name.c_str()), result) << name;
    }
    for (const auto& [text, result] : addresses) {
        EXPECT_EQ(Parsing.is_valid_ipv4_format(text), result) << text;
    }
}

TEST(Parsing, TokensIncludingEmptyOnes) {
    // clang-format off
    const struct { const char* text; const char* delimiter; std::string tokens; } cases[] = {
        {"a,,b", ",", "[a][][b]"}, {"a,", ",", "[a][]"}, {"a::b:c", "::", "[a][b:c]"},
        {"", ",", "[]"}, {"abc", "", "[abc]"},
    };
    // clang-format on
    for (const auto& c : cases) {
        std::string source = c.text;
        char* holder = source.data();
        char** first = &holder;
        char* cursor = nullptr;
        std::string tokens;
        while (char* token = Parsing.get_next_token(first, c.delimiter, &cursor)) {
            tokens += "[" + std::string(token) + "]";
            free(token);
            first = nullptr;
        }
        EXPECT_EQ(tokens, c.tokens) << c.text;
    }
}

}  // namespace
