// Crypto: Base64, one-shot SHA-1 and the nonce source for the WebSocket
// client handshake.

#include "websocket/crypto.h"

#include <cstdlib>

#include "core/logger.h"
#include "core/random_bytes.h"

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
// A line feed follows every full line of this many characters.
constexpr unsigned kLineLength = 72;

// Writes the 4 characters of one 3-byte group; `present` bytes are real, the
// rest of the group is padding.
char* encode_group(const uint8_t* source, int present, char* out) {
    uint32_t group = static_cast<uint32_t>(source[0]) << 16;
    if (present > 1) {
        group |= static_cast<uint32_t>(source[1]) << 8;
    }
    if (present > 2) {
        group |= source[2];
    }
    *out++ = kAlphabet[(group >> 18) & 0x3F];
    *out++ = kAlphabet[(group >> 12) & 0x3F];
    *out++ = present > 1 ? kAlphabet[(group >> 6) & 0x3F] : '=';
    *out++ = present > 2 ? kAlphabet[group & 0x3F] : '=';
    return out;
}

// malloc'd Base64 text of count bytes, or null on overflow or no memory.
char* base64_encode(const uint8_t* source, uint64_t count, uint64_t* out_length) {
    if (source == nullptr && count > 0) {
        return nullptr;
    }
    if (count > UINT64_MAX / 4) {
        return nullptr;
    }
    uint64_t size = count * 4 / 3 + 4;
    size += size / kLineLength;
    size += 1;
    if (size < count || size > SIZE_MAX) {
        return nullptr;
    }
    char* text = static_cast<char*>(malloc(static_cast<size_t>(size)));
    if (text == nullptr) {
        return nullptr;
    }
    char* out = text;
    unsigned line = 0;
    uint64_t i = 0;
    for (; count - i >= 3; i += 3) {
        out = encode_group(source + i, 3, out);
        line += 4;
        if (line >= kLineLength) {
            *out++ = '\n';
            line = 0;
        }
    }
    if (count - i > 0) {
        out = encode_group(source + i, static_cast<int>(count - i), out);
    }
    *out = '\0';
    if (out_length != nullptr) {
        *out_length = static_cast<uint64_t>(out - text);
    }
    return text;
}

// SHA-1 of buffer into digest on a stack context.
int32_t sha1_compute(const uint8_t* buffer, uint64_t size, uint8_t* digest) {
    if (buffer == nullptr) {
        Logger.error("Unable to compute sha1 as provided buffer is NULL");
        return CRYPTO_ERR_ARGUMENT;
    }
    if (size == 0) {
        Logger.error("Unable to compute sha1 as provided buffer size is 0");
        return CRYPTO_ERR_ARGUMENT;
    }
    Sha1Context context;
    if (Sha1.reset(&context) != 0) {
        Logger.error("Unable to reset sha1 context");
        return CRYPTO_ERR_INPUT;
    }
    // The context takes 32-bit lengths; anything larger goes in slices.
    for (uint64_t done = 0; done < size;) {
        uint64_t slice = size - done > UINT32_MAX ? UINT32_MAX : size - done;
        if (Sha1.input(&context, buffer + done, static_cast<uint32_t>(slice)) != 0) {
            Logger.error("Unable to set sha1 clear text");
            return CRYPTO_ERR_INPUT;
        }
        done += slice;
    }
    if (Sha1.result(&context, digest) != 0) {
        Logger.error("Unable to compute sha1");
        return CRYPTO_ERR_DIGEST;
    }
    return CRYPTO_OK;
}

// Forwards to Random.bytes; read at call time, not at table initialisation.
int random_bytes(uint8_t* buffer, uint64_t count) {
    return Random.bytes(buffer, count);
}

}  // namespace

const CryptoModule Crypto = {
    .base64_encode = base64_encode,
    .sha1_compute = sha1_compute,
    .random_bytes = random_bytes,
};
