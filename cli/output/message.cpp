// Message and the terminal-safe writing of untrusted words.

#include "cli/output/message.h"

#include <cstdio>

namespace {

void append_escape(std::string& out, const char* form, unsigned value) {
    char escaped[8];
    snprintf(escaped, sizeof escaped, form, value);
    out += escaped;
}

// The code point of a three-byte sequence E2 xx yy, for the overrides.
unsigned three_byte_code(unsigned char second, unsigned char third) {
    return 0x2000u | ((second & 0x3Fu) << 6) | (third & 0x3Fu);
}

bool is_bidi_override(unsigned code) {
    return (code >= 0x202A && code <= 0x202E) || (code >= 0x2066 && code <= 0x2069);
}

}  // namespace

void append_terminal_safe(std::string& out, std::string_view text) {
    for (size_t i = 0; i < text.size(); i++) {
        const auto byte = static_cast<unsigned char>(text[i]);
        const auto next = i + 1 < text.size() ? static_cast<unsigned char>(text[i + 1]) : 0;
        const auto third = i + 2 < text.size() ? static_cast<unsigned char>(text[i + 2]) : 0;
        if (byte < 0x20 || byte == 0x7F) {
            append_escape(out, "\\x%02x", byte);
        } else if (byte == 0xC2 && next >= 0x80 && next <= 0x9F) {
            append_escape(out, "\\u%04x", next);  // C1: U+0080 to U+009F
            i++;
        } else if (byte == 0xE2 && (next == 0x80 || next == 0x81) && (third & 0xC0) == 0x80 &&
                   is_bidi_override(three_byte_code(next, third))) {
            append_escape(out, "\\u%04x", three_byte_code(next, third));
            i += 2;
        } else {
            out += text[i];
        }
    }
}

size_t utf8_prefix(std::string_view text, size_t limit) {
    if (text.size() <= limit) {
        return text.size();
    }
    size_t cut = limit;
    while (cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80) {
        --cut;
    }
    return cut;
}

Message& Message::say(std::string_view text) {
    raw_ += text;
    shown_ += text;
    return *this;
}

Message& Message::quote(std::string_view word, size_t limit) {
    raw_ += word;
    append_terminal_safe(shown_, limit == 0 ? word : word.substr(0, utf8_prefix(word, limit)));
    return *this;
}

Message& Message::add(const Message& other) {
    raw_ += other.raw_;
    shown_ += other.shown_;
    return *this;
}

Message Message::format(std::string_view pattern, std::initializer_list<std::string_view> words) {
    Message message;
    const std::string_view* word = words.begin();
    for (size_t at = pattern.find("%s"); at != std::string_view::npos; at = pattern.find("%s")) {
        message.say(pattern.substr(0, at));
        if (word != words.end()) {
            message.quote(*word++);
        }
        pattern.remove_prefix(at + 2);
    }
    return message.say(pattern);
}
