// The front end's tables against what is written elsewhere: the short
// option string, the usage text, the completions and the command table;
// the escaping of untrusted words on a terminal and in JSON; the tenant
// reader.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <new>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "cli/agent/tenants.h"
#include "cli/command_line/option_table.h"
#include "cli/commands/command_table.h"
#include "cli/output/json_writer.h"
#include "cli/output/message.h"

namespace {

std::string file_text(const std::string& path) {
    std::ifstream file(std::string(SYLV_SOURCE_DIR) + "/" + path);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

TEST(OptionTable, MatchesTheShortOptionsTheUsageAndTheCompletions) {
    const std::string usage = usage_text();
    const std::string completions[] = {file_text("contrib/bash-completion/sylvane-service"),
                                       file_text("contrib/zsh/_sylvane-service"),
                                       file_text("contrib/fish/sylvane-service.fish")};
    for (const OptionRow& row : option_table()) {
        if (row.letter != 0) {
            const char* at = strchr(SHORT_OPTIONS, row.letter);
            ASSERT_NE(at, nullptr) << row.letter;
            EXPECT_EQ(at[1] == ':', row.takes_argument) << row.letter;
            EXPECT_NE(usage.find(std::string("-") + row.letter), std::string::npos) << row.letter;
        } else if (!row.scripting && row.kind == OptionKind::command) {
            EXPECT_NE(usage.find(std::string("--") + row.long_name), std::string::npos)
                << row.long_name;
        }
        for (const std::string& completion : completions) {
            EXPECT_NE(completion.find(row.long_name), std::string::npos) << row.long_name;
        }
    }
    for (const char* letter = SHORT_OPTIONS; *letter != '\0'; letter++) {
        EXPECT_TRUE(*letter == ':' || option_by_value(*letter) != nullptr) << *letter;
    }
}

TEST(CommandTable, EveryCommandHasItsRowAndEveryConversationItsHandlers) {
    for (const OptionRow& option : option_table()) {
        if (option.kind != OptionKind::command) {
            continue;
        }
        const CommandRow& row = command_row(option.command);
        EXPECT_EQ(row.id, option.command) << option.long_name;
        if (row.answer_here == nullptr) {
            EXPECT_NE(row.on_timeout, nullptr) << row.shown_as;
            EXPECT_TRUE(row.agent_command == nullptr || row.on_answer != nullptr) << row.shown_as;
            EXPECT_TRUE(row.agent_command != nullptr || row.on_event != nullptr) << row.shown_as;
        }
    }
}

TEST(TerminalText, EscapesControlsAndOverridesOnly) {
    const struct {
        const char* text;
        const char* shown;
    } cases[] = {
        {"plain caf\xc3\xa9 \xe2\x80\x94 \\", "plain caf\xc3\xa9 \xe2\x80\x94 \\"},
        {"a\nb\tc\rd", "a\\x0ab\\x09c\\x0dd"},
        {"\x1b]0;x\x07\x7f", "\\x1b]0;x\\x07\\x7f"},
        {"\xc2\x85\xc2\x9f\xc2\xa0", "\\u0085\\u009f\xc2\xa0"},  // C1, then NBSP
        {"\xe2\x80\xaa\xe2\x80\xae\xe2\x80\xaf",
         "\\u202a\\u202e\xe2\x80\xaf"},  // LRE, RLO, not U+202F
        {"\xe2\x81\xa6\xe2\x81\xa9\xe2\x81\xa5", "\\u2066\\u2069\xe2\x81\xa5"},
        {"\xe2\x80", "\xe2\x80"},  // cut sequence: left as it is
        // Past the first 16 bytes, and across the 16th.
        {"0123456789abcdef\x1b"
         "0123456789abcdef",
         "0123456789abcdef\\x1b0123456789abcdef"},
        {"0123456789abcde\xc2\x85 and \xe2\x80\xae"
         "0123456789abcdef\x7f"
         "0123456789abcdef",
         "0123456789abcde\\u0085 and \\u202e0123456789abcdef\\x7f0123456789abcdef"},
        // In the last bytes, read as the end of a block that overlaps the
        // bytes before: one past the 16th, and one already escaped.
        {"0123456789abcdef01\x07x", "0123456789abcdef01\\x07x"},
        {"ab\x01"
         "cdefghijklmnop",
         "ab\\x01cdefghijklmnop"},
    };
    for (const auto& c : cases) {
        std::string shown;
        append_terminal_safe(shown, c.text);
        EXPECT_EQ(shown, c.shown) << c.text;
    }
    Message message = Message::format("'%s' %s", {"a\nb", "r"});
    EXPECT_EQ(message.raw(), "'a\nb' r");
    EXPECT_EQ(message.shown(), "'a\\x0ab' r");
}

// Every length around the 16-byte blocks, a control at every place: it is
// escaped where it lies (short texts and last blocks included).
TEST(TerminalSafe, EscapesAControlAtEveryPlaceWhateverTheLength) {
    for (size_t length = 1; length <= 40; length++) {
        for (size_t at = 0; at < length; at++) {
            std::string text(length, 'x');
            text[at] = '\x7f';
            std::string shown;
            append_terminal_safe(shown, text);
            EXPECT_EQ(shown, std::string(at, 'x') + "\\x7f" + std::string(length - at - 1, 'x'))
                << length << " " << at;
        }
    }
}

TEST(JsonText, EscapesQuotesBackslashesAndControlsAnywhereAndReplacesBadBytes) {
    const struct {
        std::string_view text;
        const char* written;
    } cases[] = {
        {"", R"("")"},
        {"caf\xc3\xa9 \x7f", "\"caf\xc3\xa9 \x7f\""},
        {"0123456789abcdef\"0123456789abcdef\\", R"("0123456789abcdef\"0123456789abcdef\\")"},
        {std::string_view("a\n\t\x01\0b", 6), R"("a\n\t\u0001\u0000b")"},
        {"0123456789abcdef\x1f"
         "0123456789abcdef",
         R"("0123456789abcdef\u001f0123456789abcdef")"},
        // What the user typed may not be UTF-8; the output stays UTF-8.
        {"0123456789abcdef\xff\xe2\x82x\xc3",
         "\"0123456789abcdef\xef\xbf\xbd\xef\xbf\xbdx\xef\xbf\xbd\""},
    };
    for (const auto& c : cases) {
        std::string written;
        write_json_string(c.text, [&](std::string_view part) { written += part; });
        EXPECT_EQ(written, c.written) << c.text;
    }
}

// Every length around the 16-byte blocks, each special byte at every place:
// the plain run ends right before it (short texts and last blocks included).
TEST(JsonText, PlainPrefixEndsAtTheFirstSpecialByteWhateverTheLength) {
    for (size_t length = 0; length <= 40; length++) {
        EXPECT_EQ(json_plain_prefix(std::string(length, 'x')), length);
        for (const char special : {'"', '\\', '\x1f', '\0', '\x80'}) {
            for (size_t at = 0; at < length; at++) {
                std::string text(length, 'x');
                text[at] = special;
                EXPECT_EQ(json_plain_prefix(text), at) << length << " " << at;
            }
        }
    }
}

// A "data" object holding `elements` as its "tenants" list.
JsonValue* listing(const std::string& elements) {
    return json_parse(("{\"tenants\": [" + elements + "]}").c_str());
}

// Views and values read alike; a field the element before had is absent
// when this one lacks it; text stops at a NUL.
TEST(TenantReader, ReadsEachElementAfreshAndStopsTextAtANul) {
    JsonValue* data = listing(
        R"("{\"tenant_name\": \"web\", \"reason\": \"r\", \"port\": 80, \"ack\": true}", 7, )"
        R"("{\"tenant_name\": \"db\\u0000x\", \"synchronized\": false}", "{not json")");
    ASSERT_NE(data, nullptr);
    std::vector<std::string> seen;
    auto describe = [](TenantElement element, const auto& tenant) {
        auto text = [](const auto& field) { return field ? std::string(*field) : "-"; };
        return std::to_string(static_cast<int>(element)) + " " + text(tenant.name) + " " +
               text(tenant.reason) + " " + text(tenant.synchronized) + " " +
               std::to_string(tenant.port) + std::to_string(tenant.has_port) +
               std::to_string(tenant.ack);
    };
    EXPECT_EQ(read_tenants(data,
                           [&](TenantElement element, const Tenant& tenant) {
                               seen.push_back(describe(element, tenant));
                               return TenantWalk::next;
                           }),
              TenantsRead::walked);
    EXPECT_EQ(read_tenant_views(data,
                                [&](TenantElement element, const TenantView& tenant) {
                                    seen.push_back(describe(element, tenant));
                                    return TenantWalk::next;
                                }),
              TenantsRead::walked);
    const std::vector<std::string> once = {"0 web r - 8011", "1 - - - -10-1", "0 db - false -10-1",
                                           "2 - - - -10-1"};
    std::vector<std::string> twice = once;
    twice.insert(twice.end(), once.begin(), once.end());
    EXPECT_EQ(seen, twice);
    json_free_value(data);
}

// The few fields a plan compares read as the whole view reads them:
// missing texts empty, ports -1 unless integers, text stopped at a NUL.
TEST(TenantReader, ServiceViewsReadAsTenantViews) {
    JsonValue* data = listing(
        R"("{\"tenant_name\": \"web\", \"status\": \"connected\", \"ip_address\": \"1.2.3.4\", )"
        R"(\"port\": 80, \"virtual_port\": 81}", 7, )"
        R"("{\"tenant_name\": \"db\", \"status\": \"in\\u0000x\", \"port\": \"80\"}", )"
        R"("{\"status\": 1, \"ip_address\": \"10.0.0.1\\u0000\", \"virtual_port\": 9}")");
    ASSERT_NE(data, nullptr);
    auto describe = [](const std::optional<std::string_view>& name, std::string_view status,
                       std::string_view ip_address, int port, int virtual_port) {
        return std::string(name.value_or("-")) + " [" + std::string(status) + "] [" +
               std::string(ip_address) + "] " + std::to_string(port) + " " +
               std::to_string(virtual_port);
    };
    std::vector<std::string> whole, few;
    read_tenant_views(data, [&](TenantElement, const TenantView& tenant) {
        whole.push_back(describe(tenant.name, tenant.status.value_or(""),
                                 tenant.ip_address.value_or(""), tenant.port, tenant.virtual_port));
        return TenantWalk::next;
    });
    EXPECT_EQ(read_service_views(data,
                                 [&](TenantElement, const ServiceView& service) {
                                     few.push_back(describe(service.name, service.status,
                                                            service.ip_address, service.port,
                                                            service.virtual_port));
                                     return TenantWalk::next;
                                 }),
              TenantsRead::walked);
    EXPECT_EQ(few, whole);
    EXPECT_EQ(few, (std::vector<std::string>{"web [connected] [1.2.3.4] 80 81", "- [] [] -1 -1",
                                             "db [in] [] -1 -1", "- [] [10.0.0.1] -1 9"}));
    json_free_value(data);
}

// What the visitor throws comes out of the reader; a missing list is told.
TEST(TenantReader, ThrowsWhatTheVisitorThrowsAndTellsAMissingList) {
    JsonValue* data = listing(R"("{}", "{}")");
    int visits = 0;
    EXPECT_THROW(read_tenants(data,
                              [&](TenantElement, const Tenant&) -> TenantWalk {
                                  visits++;
                                  throw std::bad_alloc();
                              }),
                 std::bad_alloc);
    EXPECT_EQ(visits, 1);
    JsonValue* other = json_parse(R"({"services": []})");
    EXPECT_EQ(
        read_tenant_views(other, [](TenantElement, const TenantView&) { return TenantWalk::next; }),
        TenantsRead::missing);
    json_free_value(other);
    json_free_value(data);
}

}  // namespace
