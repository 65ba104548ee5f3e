#include "cli/output/json_writer.h"

#include <array>
#include <cstdio>
#include <cstring>
#include <new>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

#include "core/utf8.h"

namespace {

// The bytes a JSON string must escape, and those past ASCII, whose
// sequences are checked before they are written.
constexpr std::array<bool, 256> JSON_SPECIAL = [] {
    std::array<bool, 256> special{};
    for (int byte = 0; byte < 0x20; byte++) {
        special[byte] = true;
    }
    for (int byte = 0x80; byte < 0x100; byte++) {
        special[byte] = true;
    }
    special['"'] = special['\\'] = true;
    return special;
}();

// Quotes and escapes `text`, a C text.
void append_string(std::string& out, const char* text) {
    write_json_string(text, [&](std::string_view part) { out += part; });
}

}  // namespace

#ifdef __SSE2__
// Bits of the 16 bytes at `at` that a JSON string cannot hold as they are.
static unsigned special_mask(const char* at) noexcept {
    const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(at));
    const __m128i control = _mm_cmpeq_epi8(_mm_min_epu8(bytes, _mm_set1_epi8(0x1F)), bytes);
    const __m128i quote = _mm_cmpeq_epi8(bytes, _mm_set1_epi8('"'));
    const __m128i backslash = _mm_cmpeq_epi8(bytes, _mm_set1_epi8('\\'));
    const __m128i special = _mm_or_si128(control, _mm_or_si128(quote, backslash));
    return static_cast<unsigned>(_mm_movemask_epi8(special) | _mm_movemask_epi8(bytes));
}
#endif

// 16 bytes at a time; the last bytes as the end of one block that overlaps
// those already seen, a text shorter than a block as a copy padded with
// plain bytes (most of a listing's texts are short and plain).
size_t json_plain_prefix(std::string_view text) noexcept {
    size_t i = 0;
#ifdef __SSE2__
    for (; i + 16 <= text.size(); i += 16) {
        if (const unsigned mask = special_mask(text.data() + i); mask != 0) {
            return i + static_cast<size_t>(__builtin_ctz(mask));
        }
    }
    if (i == text.size()) {
        return i;
    }
    if (text.size() >= 16) {
        const size_t start = text.size() - 16;
        const unsigned mask = special_mask(text.data() + start) >> (i - start);
        return mask == 0 ? text.size() : i + static_cast<size_t>(__builtin_ctz(mask));
    }
    char block[16];
    memset(block, 'a', sizeof block);
    memcpy(block, text.data(), text.size());
    const unsigned mask = special_mask(block);
    return mask == 0 ? text.size() : static_cast<size_t>(__builtin_ctz(mask));
#else
    while (i < text.size() && !JSON_SPECIAL[static_cast<unsigned char>(text[i])]) {
        i++;
    }
    return i;
#endif
}

size_t json_non_ascii(std::string_view text, std::string_view* valid) noexcept {
    uint32_t code_point = 0;
    const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
    size_t length = utf8_sequence(bytes, text.size(), &code_point);
    if (length > 0) {
        *valid = text.substr(0, length);
        return length;
    }
    *valid = std::string_view("\xEF\xBF\xBD", 3);  // U+FFFD
    for (length = 1; length < text.size() && length < 4 && (bytes[length] & 0xC0) == 0x80;
         length++) {
    }
    return length;
}

// Only called from inside append(), which catches what this may throw.
void JsonWriter::key(const char* name) {
    if (!fields_.empty()) {
        fields_ += ", ";
    }
    append_string(fields_, name);
    fields_ += ": ";
}

template <typename Append>
JsonWriter& JsonWriter::append(Append append_field) noexcept {
    if (!complete_) {
        return *this;
    }
    try {
        append_field();
    } catch (const std::bad_alloc&) {
        complete_ = false;
    }
    return *this;
}

JsonWriter& JsonWriter::text(const char* name, const char* value) {
    if (value == nullptr) {
        return *this;
    }
    return append([&] {
        key(name);
        append_string(fields_, value);
    });
}

JsonWriter& JsonWriter::number(const char* name, int64_t value) {
    return append([&] {
        key(name);
        fields_ += std::to_string(value);
    });
}

JsonWriter& JsonWriter::decimal(const char* name, double value) {
    char written[32];
    snprintf(written, sizeof written, "%.1f", value);
    return append([&] {
        key(name);
        fields_ += written;
    });
}

JsonWriter& JsonWriter::boolean(const char* name, bool value) {
    return append([&] {
        key(name);
        fields_ += value ? "true" : "false";
    });
}

JsonWriter& JsonWriter::value(const char* name, const std::string& json) {
    if (json.empty()) {
        complete_ = false;  // the value itself could not be written
        return *this;
    }
    return append([&] {
        key(name);
        fields_ += json;
    });
}

JsonWriter& JsonWriter::merge(const JsonWriter& other) {
    complete_ = complete_ && other.complete_;
    return append([&] {
        if (!other.fields_.empty()) {
            fields_ += fields_.empty() ? "" : ", ";
            fields_ += other.fields_;
        }
    });
}

std::string JsonWriter::object() const noexcept {
    try {
        return complete_ ? "{" + fields_ + "}" : std::string();
    } catch (const std::bad_alloc&) {
        return std::string();
    }
}

std::string json_array(const std::string* items, size_t count) noexcept {
    try {
        std::string out = "[";
        for (size_t i = 0; i < count; i++) {
            out += i == 0 ? "" : ", ";
            out += items[i];
        }
        return out + "]";
    } catch (const std::bad_alloc&) {
        return std::string();
    }
}
