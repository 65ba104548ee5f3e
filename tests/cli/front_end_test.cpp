// The front end's tables against what is written elsewhere: the short
// option string, the usage text, the completions and the command table;
// and the escaping of untrusted words on a terminal.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include "cli/command_line/option_table.h"
#include "cli/commands/command_table.h"
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

}  // namespace
