// Message and the terminal-safe writing of untrusted words.

#include "cli/output/message.h"

#include <array>
#include <cstdio>
#include <cstring>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

#include "sylvshared/tenants.h"

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

// Bytes that may start something to escape: C0 controls, DEL, and the lead
// bytes of C1 controls (C2) and of the overrides (E2).
constexpr std::array<bool, 256> MAY_ESCAPE = [] {
    std::array<bool, 256> may{};
    for (int byte = 0; byte < 0x20; byte++) {
        may[byte] = true;
    }
    may[0x7F] = may[0xC2] = may[0xE2] = true;
    return may;
}();

// Index of the first byte from `from` that may start an escape, or the size:
// 16 bytes at a time where there are that many.
#ifdef __SSE2__
// Bits of the 16 bytes at `at` that may start an escape.
unsigned may_escape_mask(const char* at) {
    const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(at));
    const __m128i control = _mm_cmpeq_epi8(_mm_min_epu8(bytes, _mm_set1_epi8(0x1F)), bytes);
    const __m128i leads =
        _mm_or_si128(_mm_cmpeq_epi8(bytes, _mm_set1_epi8(0x7F)),
                     _mm_or_si128(_mm_cmpeq_epi8(bytes, _mm_set1_epi8(static_cast<char>(0xC2))),
                                  _mm_cmpeq_epi8(bytes, _mm_set1_epi8(static_cast<char>(0xE2)))));
    return static_cast<unsigned>(_mm_movemask_epi8(_mm_or_si128(control, leads)));
}
#endif

size_t next_may_escape(std::string_view text, size_t from) {
    size_t i = from;
#ifdef __SSE2__
    for (; i + 16 <= text.size(); i += 16) {
        if (const unsigned mask = may_escape_mask(text.data() + i); mask != 0) {
            return i + static_cast<size_t>(__builtin_ctz(mask));
        }
    }
    // The last bytes, as the end of one last block that overlaps the ones
    // already seen.
    if (i < text.size() && text.size() >= 16) {
        const size_t start = text.size() - 16;
        const unsigned mask = may_escape_mask(text.data() + start) >> (i - start);
        return mask == 0 ? text.size() : i + static_cast<size_t>(__builtin_ctz(mask));
    }
    // A text shorter than a block, as a copy padded with plain bytes.
    if (i < text.size()) {
        char block[16];
        memset(block, 'a', sizeof block);
        memcpy(block, text.data() + i, text.size() - i);
        const unsigned mask = may_escape_mask(block);
        return mask == 0 ? text.size() : i + static_cast<size_t>(__builtin_ctz(mask));
    }
    return i;
#else
    while (i < text.size() && !MAY_ESCAPE[static_cast<unsigned char>(text[i])]) {
        i++;
    }
    return i;
#endif
}

}  // namespace

bool terminal_safe_as_is(std::string_view text) {
    return next_may_escape(text, 0) == text.size();
}

// Plain runs are appended whole: a listing's fields rarely hold anything
// to escape.
void append_terminal_safe(std::string& out, std::string_view text) {
    size_t run = 0;  // start of the plain bytes not yet appended
    for (size_t i = next_may_escape(text, 0); i < text.size(); i = next_may_escape(text, i + 1)) {
        const auto byte = static_cast<unsigned char>(text[i]);
        const auto next = i + 1 < text.size() ? static_cast<unsigned char>(text[i + 1]) : 0;
        const auto third = i + 2 < text.size() ? static_cast<unsigned char>(text[i + 2]) : 0;
        const bool c1 = byte == 0xC2 && next >= 0x80 && next <= 0x9F;
        const bool bidi = byte == 0xE2 && (next == 0x80 || next == 0x81) &&
                          (third & 0xC0) == 0x80 && is_bidi_override(three_byte_code(next, third));
        if (byte >= 0xC2 && !c1 && !bidi) {
            continue;
        }
        out.append(text.data() + run, i - run);
        if (c1) {
            append_escape(out, "\\u%04x", next);  // C1: U+0080 to U+009F
            i++;
        } else if (bidi) {
            append_escape(out, "\\u%04x", three_byte_code(next, third));
            i += 2;
        } else {
            append_escape(out, "\\x%02x", byte);
        }
        run = i + 1;
    }
    out.append(text.data() + run, text.size() - run);
}

Message& Message::say(std::string_view text) {
    raw_ += text;
    shown_ += text;
    return *this;
}

Message& Message::quote(std::string_view word, size_t limit) {
    raw_ += word;
    append_terminal_safe(shown_,
                         limit == 0 ? word : word.substr(0, sylvshared::utf8_cut(word, limit)));
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
