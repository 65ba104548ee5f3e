// User-typed texts (addresses, ports, clear-service lists) and the handshake
// primitives. Base64 and SHA-1 are compared with plain reference versions
// written here from the published algorithms.
#include <arpa/inet.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "cli/preflight/address.h"
#include "core/linked_list.h"
#include "websocket/crypto.h"

namespace {

// Base64 with a line feed after each full group that completes 72
// characters (so after a last full line too); the padded group gets none.
std::string reference_base64(const uint8_t* bytes, size_t count) {
    static const char alphabet[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string text;
    size_t line = 0;
    for (size_t i = 0; i < count; i += 3) {
        const uint32_t a = bytes[i];
        const uint32_t b = i + 1 < count ? bytes[i + 1] : 0;
        const uint32_t c = i + 2 < count ? bytes[i + 2] : 0;
        const uint32_t group = a << 16 | b << 8 | c;
        text += alphabet[group >> 18 & 63];
        text += alphabet[group >> 12 & 63];
        text += i + 1 < count ? alphabet[group >> 6 & 63] : '=';
        text += i + 2 < count ? alphabet[group & 63] : '=';
        line += 4;
        if (i + 3 <= count && line == 72) {
            text += '\n';
            line = 0;
        }
    }
    return text;
}

uint32_t rotl(uint32_t x, int n) {
    return x << n | x >> (32 - n);
}

// FIPS 180-1 SHA-1, the straightforward way.
std::string reference_sha1(const uint8_t* bytes, size_t count) {
    std::string message(reinterpret_cast<const char*>(bytes), count);
    message += '\x80';
    while (message.size() % 64 != 56) {
        message += '\0';
    }
    const uint64_t bits = static_cast<uint64_t>(count) * 8;
    for (int shift = 56; shift >= 0; shift -= 8) {
        message += static_cast<char>(bits >> shift);
    }
    uint32_t h[5] = {0x67452301, 0xEFCDAB89, 0x98BADCFE, 0x10325476, 0xC3D2E1F0};
    for (size_t block = 0; block < message.size(); block += 64) {
        uint32_t w[80];
        for (int t = 0; t < 16; ++t) {
            const auto* p = reinterpret_cast<const uint8_t*>(message.data() + block + 4 * t);
            w[t] = uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | p[3];
        }
        for (int t = 16; t < 80; ++t) {
            w[t] = rotl(w[t - 3] ^ w[t - 8] ^ w[t - 14] ^ w[t - 16], 1);
        }
        uint32_t a = h[0], b = h[1], c = h[2], d = h[3], e = h[4];
        for (int t = 0; t < 80; ++t) {
            uint32_t f = 0, k = 0;
            if (t < 20) {
                f = (b & c) | (~b & d), k = 0x5A827999;
            } else if (t < 40) {
                f = b ^ c ^ d, k = 0x6ED9EBA1;
            } else if (t < 60) {
                f = (b & c) | (b & d) | (c & d), k = 0x8F1BBCDC;
            } else {
                f = b ^ c ^ d, k = 0xCA62C1D6;
            }
            const uint32_t next = rotl(a, 5) + f + e + w[t] + k;
            e = d, d = c, c = rotl(b, 30), b = a, a = next;
        }
        h[0] += a, h[1] += b, h[2] += c, h[3] += d, h[4] += e;
    }
    std::string digest;
    for (uint32_t word : h) {
        for (int shift = 24; shift >= 0; shift -= 8) {
            digest += static_cast<char>(word >> shift);
        }
    }
    return digest;
}

void check_crypto(const uint8_t* bytes, size_t count) {
    uint64_t length = 0;
    char* encoded = Crypto.base64_encode(bytes, count, &length);
    const std::string expected = reference_base64(bytes, count);
    if (encoded == nullptr || length != expected.size() || expected != encoded) {
        __builtin_trap();
    }
    free(encoded);
    uint8_t digest[SHA1_DIGEST_SIZE] = {};
    const int32_t result = Crypto.sha1_compute(bytes, count, digest);
    if (count == 0) {
        if (result != -1) {
            __builtin_trap();
        }
        return;
    }
    if (result != 0 || reference_sha1(bytes, count) !=
                           std::string(reinterpret_cast<char*>(digest), sizeof digest)) {
        __builtin_trap();
    }
}

// An accepted address reprints as a real dotted quad that starts the text.
void check_address(const char* text) {
    char destination[IPV4_TEXT_SIZE] = {};
    if (Parsing.parse_ip_address(text, destination) != 0) {
        return;
    }
    in_addr address{};
    if (inet_pton(AF_INET, destination, &address) != 1 ||
        strncmp(text, destination, strlen(destination)) != 0) {
        __builtin_trap();
    }
}

// An accepted port is what strtol reads, and lies in 1..65535.
void check_port(const char* text) {
    uint16_t port = 0;
    if (Parsing.parse_port(text, &port) != 0) {
        return;
    }
    const long value = strtol(text, nullptr, 10);
    if (port == 0 || value != port) {
        __builtin_trap();
    }
}

void check_address_and_port(const char* text) {
    char destination[IPV4_TEXT_SIZE] = {};
    uint16_t port = 0;
    if (Parsing.parse_ip_address_and_port(text, destination, &port) != 0) {
        return;
    }
    const char* colon = strchr(text, ':');
    in_addr address{};
    if (colon == nullptr || port == 0 || inet_pton(AF_INET, destination, &address) != 1) {
        __builtin_trap();
    }
}

// Every stored entry is an address or a domain name, one per comma-separated token.
void check_clear_services(const char* text) {
    List* list = LinkedList.create(nullptr);
    if (Parsing.parse_clear_services(text, list) == 0) {
        uint64_t tokens = 1;
        for (const char* c = text; *c != '\0'; ++c) {
            tokens += *c == ',' ? 1 : 0;
        }
        if (LinkedList.size(list) != tokens) {
            __builtin_trap();
        }
        for (ListEntry* entry = list->head; entry != nullptr; entry = entry->next) {
            const char* item = static_cast<const char*>(entry->item);
            in_addr address{};
            if (inet_pton(AF_INET, item, &address) != 1 &&
                Parsing.is_valid_domain_name(item) != 0) {
                __builtin_trap();
            }
        }
    }
    LinkedList.free(list, free);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    const uint8_t selector = data[0];
    const std::string rest(reinterpret_cast<const char*>(data + 1), size - 1);
    const char* text = rest.c_str();
    switch (selector % 6) {
        case 0:
            check_address(text);
            break;
        case 1:
            check_port(text);
            break;
        case 2:
            check_address_and_port(text);
            break;
        case 3:
            check_clear_services(text);
            break;
        case 4: {
            char copy[512] = {};
            strncpy(copy, text, sizeof copy - 1);
            Parsing.to_upper_case(copy);
            (void)Parsing.is_valid_ipv4_format(text);
            (void)Parsing.is_valid_domain_name(text);
            break;
        }
        default:
            check_crypto(data + 1, size - 1);
            break;
    }
    return 0;
}
