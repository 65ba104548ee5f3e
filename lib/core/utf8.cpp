#include "core/utf8.h"

namespace {

// A multi-byte form: the lead byte's marker bits, the sequence's length and
// the smallest code point it may carry (anything below is overlong).
struct Form {
    unsigned char mask;
    unsigned char lead;
    size_t length;
    uint32_t smallest;
};
constexpr Form FORMS[] = {{0xE0, 0xC0, 2, 0x80}, {0xF0, 0xE0, 3, 0x800}, {0xF8, 0xF0, 4, 0x10000}};

bool is_continuation(unsigned char byte) {
    return (byte & 0xC0) == 0x80;
}

}  // namespace

size_t utf8_sequence(const unsigned char* bytes, size_t available, uint32_t* code_point) {
    if (bytes[0] < 0x80) {
        *code_point = bytes[0];
        return 1;
    }
    for (const Form& form : FORMS) {
        if ((bytes[0] & form.mask) != form.lead) {
            continue;
        }
        if (available < form.length) {
            return 0;
        }
        uint32_t value = bytes[0] & static_cast<unsigned char>(~form.mask);
        for (size_t i = 1; i < form.length; ++i) {
            if (!is_continuation(bytes[i])) {
                return 0;
            }
            value = (value << 6) | (bytes[i] & 0x3F);
        }
        if (value < form.smallest || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF)) {
            return 0;
        }
        *code_point = value;
        return form.length;
    }
    return 0;
}

bool utf8_is_control(uint32_t code_point) {
    return code_point < 0x20 || (code_point >= 0x7F && code_point <= 0x9F) ||
           (code_point >= 0x202A && code_point <= 0x202E) ||
           (code_point >= 0x2066 && code_point <= 0x2069);
}
