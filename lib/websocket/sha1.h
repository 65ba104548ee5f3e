// Sha1: the RFC 3174 reference context for SHA-1 (FIPS 180-1), with this
// library's return codes. Used through Crypto.sha1_compute.
#pragma once

#include <cstdint>

constexpr int SHA1_DIGEST_SIZE = 20;

struct Sha1Context {
    uint32_t intermediate_hash[SHA1_DIGEST_SIZE / 4];
    uint32_t length_low;  // message length in bits
    uint32_t length_high;
    int16_t message_block_index;
    uint8_t message_block[64];
    int32_t computed;
    int32_t corrupted;  // non-zero: the context refuses further work
};

// Results: SHA1_OK (0); SHA1_ERR_ARGUMENT (-1) a null context or digest, or
// an empty input; SHA1_ERR_NULL (-2) input without a context or bytes;
// SHA1_ERR_STATE (-3) input after the digest (the context then refuses
// everything); SHA1_ERR_TOO_LONG (1) more than 2^64 bits were fed.
enum Sha1Result : int {
    SHA1_OK = 0,
    SHA1_ERR_ARGUMENT = -1,
    SHA1_ERR_NULL = -2,
    SHA1_ERR_STATE = -3,
    SHA1_ERR_TOO_LONG = 1,
};

struct Sha1Module {
    // SHA1_OK, or SHA1_ERR_ARGUMENT for a null context.
    int (*reset)(Sha1Context* context);
    // SHA1_OK; SHA1_ERR_ARGUMENT when length is 0; SHA1_ERR_NULL;
    // SHA1_ERR_STATE; else the context's error state.
    int (*input)(Sha1Context* context, const uint8_t* bytes, uint32_t length);
    // Pads (first time only) and writes the 20-byte digest. SHA1_OK,
    // SHA1_ERR_ARGUMENT, or the context's error state.
    int (*result)(Sha1Context* context, uint8_t digest[SHA1_DIGEST_SIZE]);
};

extern const Sha1Module Sha1;
