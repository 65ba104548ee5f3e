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

struct Sha1Module {
    // 0, or -1 for a null context.
    int (*reset)(Sha1Context* context);
    // 0; -1 when length is 0; -2 null context or bytes; -3 after the digest
    // was computed (the context then refuses everything); else the non-zero
    // error state.
    int (*input)(Sha1Context* context, const uint8_t* bytes, uint32_t length);
    // Pads (first time only) and writes the 20-byte digest. 0, -1 for null
    // arguments, or the non-zero error state.
    int (*result)(Sha1Context* context, uint8_t digest[SHA1_DIGEST_SIZE]);
};

extern const Sha1Module Sha1;
