// Crypto: what the WebSocket client handshake needs. Allocates nothing but
// the encoder's output; keeps no state between calls.
#pragma once

#include <cstdint>

#include "websocket/sha1.h"

// Results of sha1_compute: CRYPTO_OK (0); CRYPTO_ERR_ARGUMENT (-1) a null
// buffer or size 0; CRYPTO_ERR_INPUT (-2) the context refused reset or input;
// CRYPTO_ERR_DIGEST (-3) the digest could not be produced.
enum CryptoResult : int32_t {
    CRYPTO_OK = 0,
    CRYPTO_ERR_ARGUMENT = -1,
    CRYPTO_ERR_INPUT = -2,
    CRYPTO_ERR_DIGEST = -3,
};

struct CryptoModule {
    // Standard Base64 (RFC 4648 alphabet, "=" padding) with a line feed after
    // every 72 characters (none after the last line). Returns a malloc'd,
    // NUL-terminated text the caller frees, or null; *out_length (when given)
    // receives the characters written, line feeds included.
    char* (*base64_encode)(const uint8_t* source, uint64_t count, uint64_t* out_length);
    // SHA-1 of `size` bytes into 20 bytes. CRYPTO_OK, CRYPTO_ERR_ARGUMENT,
    // CRYPTO_ERR_INPUT or CRYPTO_ERR_DIGEST.
    int32_t (*sha1_compute)(const uint8_t* buffer, uint64_t size, uint8_t* digest);
    // Random.bytes: time-seeded rand(), weak on purpose. RANDOM_OK, or
    // RANDOM_ERR_ARGUMENT for a null buffer.
    int (*random_bytes)(uint8_t* buffer, uint64_t count);
};

extern const CryptoModule Crypto;
