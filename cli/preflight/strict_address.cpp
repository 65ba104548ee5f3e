// Strict address, port, clear-service and name reading; see the header.

#include "cli/preflight/strict_address.h"

#include <algorithm>

namespace {

constexpr size_t kMaxLabelLength = 63;
constexpr size_t kMaxDomainLength = 253;
constexpr size_t kMaxServiceNameLength = 255;

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

// A decimal number without sign or leading zero, at most `limit`; false
// for anything else (empty, too long, other characters).
bool parse_decimal(std::string_view text, uint32_t limit, uint32_t* value) {
    if (text.empty() || text.size() > 5 || (text.size() > 1 && text[0] == '0')) {
        return false;
    }
    uint32_t number = 0;
    for (char c : text) {
        if (!is_digit(c)) {
            return false;
        }
        number = number * 10 + static_cast<uint32_t>(c - '0');
    }
    if (number > limit) {
        return false;
    }
    *value = number;
    return true;
}

// The text up to the next "." (or the end), removed from `rest` with its dot.
std::string_view next_label(std::string_view* rest) {
    size_t dot = rest->find('.');
    std::string_view label = rest->substr(0, dot);
    rest->remove_prefix(dot == std::string_view::npos ? rest->size() : dot + 1);
    return label;
}

bool is_numeric_label(std::string_view label) {
    return !label.empty() && std::all_of(label.begin(), label.end(), is_digit);
}

bool is_domain_label(std::string_view label) {
    if (label.empty() || label.size() > kMaxLabelLength || label.front() == '-' ||
        label.back() == '-') {
        return false;
    }
    return std::all_of(label.begin(), label.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || is_digit(c) || c == '-';
    });
}

// A domain name that no reading takes for an address; see the header.
bool is_plain_domain_name(std::string_view text) {
    if (text.empty() || text.size() > kMaxDomainLength || text.back() == '.') {
        return false;
    }
    std::string_view rest = text;
    std::string_view label;
    int leading_numeric = 0;
    bool numeric_so_far = true;
    while (!rest.empty()) {
        label = next_label(&rest);
        if (!is_domain_label(label)) {
            return false;
        }
        numeric_so_far = numeric_so_far && is_numeric_label(label);
        leading_numeric += numeric_so_far ? 1 : 0;
    }
    return !is_numeric_label(label) && leading_numeric < 4;
}

// Length of the UTF-8 sequence that starts at text[i] when it is well
// formed, else 0.
size_t utf8_sequence_length(std::string_view text, size_t i) {
    const auto lead = static_cast<unsigned char>(text[i]);
    if (lead < 0x80) {
        return 1;
    }
    size_t length = lead >= 0xC2 && lead <= 0xDF   ? 2
                    : lead >= 0xE0 && lead <= 0xEF ? 3
                    : lead >= 0xF0 && lead <= 0xF4 ? 4
                                                   : 0;
    if (length == 0 || i + length > text.size()) {
        return 0;
    }
    const auto second = static_cast<unsigned char>(text[i + 1]);
    // The second byte's range excludes overlong forms, surrogates and code
    // points above U+10FFFF.
    unsigned char low = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
    unsigned char high = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
    if (second < low || second > high) {
        return 0;
    }
    for (size_t k = 2; k < length; k++) {
        const auto next = static_cast<unsigned char>(text[i + k]);
        if (next < 0x80 || next > 0xBF) {
            return 0;
        }
    }
    return length;
}

}  // namespace

bool parse_strict_ipv4(std::string_view text, std::array<uint8_t, 4>* octets) {
    std::array<uint8_t, 4> read{};
    std::string_view rest = text;
    for (size_t i = 0; i < read.size(); i++) {
        if (rest.empty()) {
            return false;
        }
        uint32_t octet = 0;
        if (!parse_decimal(next_label(&rest), 255, &octet)) {
            return false;
        }
        read[i] = static_cast<uint8_t>(octet);
    }
    // A trailing dot leaves `rest` empty too; the text must not end in one.
    if (!rest.empty() || text.empty() || text.back() == '.') {
        return false;
    }
    if (octets != nullptr) {
        *octets = read;
    }
    return true;
}

bool parse_strict_port(std::string_view text, uint16_t* port) {
    uint32_t value = 0;
    if (!parse_decimal(text, 65535, &value) || value == 0) {
        return false;
    }
    if (port != nullptr) {
        *port = static_cast<uint16_t>(value);
    }
    return true;
}

EndpointError parse_strict_endpoint(std::string_view text, StrictEndpoint* endpoint) {
    size_t colon = text.find(':');
    if (colon == std::string_view::npos) {
        return EndpointError::missing_port;
    }
    std::string_view address = text.substr(0, colon);
    uint16_t port = 0;
    if (!parse_strict_ipv4(address, nullptr)) {
        return EndpointError::bad_address;
    }
    if (!parse_strict_port(text.substr(colon + 1), &port)) {
        return EndpointError::bad_port;
    }
    if (endpoint != nullptr) {
        *endpoint = StrictEndpoint{.address = address, .port = port};
    }
    return EndpointError::none;
}

bool is_strict_clear_service(std::string_view text) {
    return parse_strict_ipv4(text, nullptr) || is_plain_domain_name(text);
}

bool is_utf8(std::string_view text) {
    for (size_t i = 0; i < text.size();) {
        size_t length = utf8_sequence_length(text, i);
        if (length == 0) {
            return false;
        }
        i += length;
    }
    return true;
}

bool is_strict_service_name(std::string_view text) {
    return !text.empty() && text.size() <= kMaxServiceNameLength && is_utf8(text);
}
