// Message: a text for the user that may quote untrusted words (service
// names, reasons, addresses: from the agent or from the command line). It is
// kept twice: as written, for JSON (whose writer escapes), and as shown on a
// terminal, where control characters and bidirectional overrides in the
// quoted words are escaped so that they cannot forge lines or drive the
// terminal, and where the human texts' length limits apply.
#pragma once

#include <cstddef>
#include <initializer_list>
#include <string>
#include <string_view>

// Appends `text` to `out` with C0 controls (tab and newline included) and
// DEL written as \xHH, and C1 controls and the bidirectional overrides
// (U+202A-U+202E, U+2066-U+2069) as \uHHHH. Other bytes are copied as they
// are.
void append_terminal_safe(std::string& out, std::string_view text);
// Whether append_terminal_safe would copy `text` as it is (nothing in it
// may need escaping).
bool terminal_safe_as_is(std::string_view text);

class Message {
public:
    Message() = default;
    // A trusted text (the tool's own words).
    Message(const char* text) : raw_(text), shown_(text) {}  // NOLINT: implicit on purpose

    // Appends the tool's own words.
    Message& say(std::string_view text);
    // Appends an untrusted word: whole as written, escaped and cut to
    // `limit` bytes (0: no limit) as shown.
    Message& quote(std::string_view word, size_t limit = 0);
    // Appends another message, its quoted words still quoted.
    Message& add(const Message& other);
    // `pattern` with each "%s" replaced by the next untrusted word.
    static Message format(std::string_view pattern, std::initializer_list<std::string_view> words);

    const std::string& raw() const { return raw_; }
    const std::string& shown() const { return shown_; }
    bool empty() const { return raw_.empty(); }

private:
    std::string raw_;
    std::string shown_;
};
