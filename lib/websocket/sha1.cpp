// SHA-1 (FIPS 180-1) in the reference form of RFC 3174: the context is fed
// bytes and a 64-byte block is processed each time it fills.

#include "websocket/sha1.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace {

constexpr uint32_t kInitialHash[SHA1_DIGEST_SIZE / 4] = {0x67452301, 0xEFCDAB89, 0x98BADCFE,
                                                         0x10325476, 0xC3D2E1F0};
constexpr uint32_t kRoundConstants[4] = {0x5A827999, 0x6ED9EBA1, 0x8F1BBCDC, 0xCA62C1D6};
constexpr int kBlockSize = 64;
// Where the 64-bit message length starts in the last block.
constexpr int kLengthOffset = 56;

constexpr uint32_t rotate_left(uint32_t word, int bits) {
    return (word << bits) | (word >> (32 - bits));
}

// The round function of rounds [first, first + 20): choose, parity,
// majority, parity.
template <int first>
constexpr uint32_t round_function(uint32_t b, uint32_t c, uint32_t d) {
    if constexpr (first == 0) {
        return (b & c) | (~b & d);
    } else if constexpr (first == 40) {
        return (b & c) | (b & d) | (c & d);
    } else {
        return b ^ c ^ d;
    }
}

// One round, the five words renamed rather than moved: `e` becomes the new
// first word and `b` the new third; the caller passes the words turned by
// one place for the next round.
template <int first>
[[gnu::always_inline]] inline void round_step(uint32_t a, uint32_t& b, uint32_t c, uint32_t d,
                                              uint32_t& e, uint32_t w) {
    e += rotate_left(a, 5) + round_function<first>(b, c, d) + w + kRoundConstants[first / 20];
    b = rotate_left(b, 30);
}

// Twenty rounds with one round function and constant: no choice per round.
template <int first>
void twenty_rounds(const uint32_t* w, uint32_t& a, uint32_t& b, uint32_t& c, uint32_t& d,
                   uint32_t& e) {
    for (int t = first; t < first + 20; t += 5) {
        round_step<first>(a, b, c, d, e, w[t]);
        round_step<first>(e, a, b, c, d, w[t + 1]);
        round_step<first>(d, e, a, b, c, w[t + 2]);
        round_step<first>(c, d, e, a, b, w[t + 3]);
        round_step<first>(b, c, d, e, a, w[t + 4]);
    }
}

// The 80-round compression of one full block into the intermediate hash.
void process_block(Sha1Context* context) {
    uint32_t w[80];
    for (int t = 0; t < 16; ++t) {
        const uint8_t* p = &context->message_block[t * 4];
        w[t] = static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 |
               static_cast<uint32_t>(p[2]) << 8 | p[3];
    }
    for (int t = 16; t < 80; ++t) {
        w[t] = rotate_left(w[t - 3] ^ w[t - 8] ^ w[t - 14] ^ w[t - 16], 1);
    }
    uint32_t a = context->intermediate_hash[0];
    uint32_t b = context->intermediate_hash[1];
    uint32_t c = context->intermediate_hash[2];
    uint32_t d = context->intermediate_hash[3];
    uint32_t e = context->intermediate_hash[4];
    twenty_rounds<0>(w, a, b, c, d, e);
    twenty_rounds<20>(w, a, b, c, d, e);
    twenty_rounds<40>(w, a, b, c, d, e);
    twenty_rounds<60>(w, a, b, c, d, e);
    context->intermediate_hash[0] += a;
    context->intermediate_hash[1] += b;
    context->intermediate_hash[2] += c;
    context->intermediate_hash[3] += d;
    context->intermediate_hash[4] += e;
    context->message_block_index = 0;
}

// Appends the 1 bit, zeros and the 64-bit bit count, processing one or two
// final blocks.
void pad_message(Sha1Context* context) {
    uint8_t* block = context->message_block;
    block[context->message_block_index++] = 0x80;
    if (context->message_block_index > kLengthOffset) {
        memset(block + context->message_block_index, 0,
               static_cast<size_t>(kBlockSize - context->message_block_index));
        process_block(context);
    }
    memset(block + context->message_block_index, 0,
           static_cast<size_t>(kLengthOffset - context->message_block_index));
    for (int i = 0; i < 4; ++i) {
        block[kLengthOffset + i] = static_cast<uint8_t>(context->length_high >> (24 - 8 * i));
        block[kLengthOffset + 4 + i] = static_cast<uint8_t>(context->length_low >> (24 - 8 * i));
    }
    process_block(context);
}

// One byte into the block, counting its 8 bits; a wrapped 64-bit count
// means the message is too long for SHA-1.
void add_byte(Sha1Context* context, uint8_t byte) {
    context->message_block[context->message_block_index++] = byte;
    context->length_low += 8;
    if (context->length_low == 0 && ++context->length_high == 0) {
        context->corrupted = SHA1_ERR_TOO_LONG;
    }
    if (context->message_block_index == kBlockSize) {
        process_block(context);
    }
}

// Fresh context.
int sha1_reset(Sha1Context* context) {
    if (context == nullptr) {
        return SHA1_ERR_ARGUMENT;
    }
    memcpy(context->intermediate_hash, kInitialHash, sizeof kInitialHash);
    context->length_low = 0;
    context->length_high = 0;
    context->message_block_index = 0;
    context->computed = 0;
    context->corrupted = 0;
    return SHA1_OK;
}

// Feeds length bytes. Input after the digest poisons the context.
int sha1_input(Sha1Context* context, const uint8_t* bytes, uint32_t length) {
    if (length == 0) {
        return SHA1_ERR_ARGUMENT;
    }
    if (context == nullptr || bytes == nullptr) {
        return SHA1_ERR_NULL;
    }
    if (context->computed != 0) {
        context->corrupted = SHA1_ERR_STATE;
        return SHA1_ERR_STATE;
    }
    if (context->corrupted != 0) {
        return context->corrupted;
    }
    while (length > 0 && context->corrupted == 0) {
        const uint32_t room = static_cast<uint32_t>(kBlockSize - context->message_block_index);
        const uint32_t take = std::min(length, room);
        // The 64-bit bit count would wrap within this piece: count byte by
        // byte, so that the context stops at the byte where it does.
        if (context->length_high == UINT32_MAX && context->length_low > UINT32_MAX - 8 * take) {
            add_byte(context, *bytes);
            ++bytes;
            --length;
            continue;
        }
        memcpy(&context->message_block[context->message_block_index], bytes, take);
        context->message_block_index = static_cast<int16_t>(context->message_block_index + take);
        const uint32_t low = context->length_low + 8 * take;
        context->length_high += low < context->length_low ? 1 : 0;
        context->length_low = low;
        bytes += take;
        length -= take;
        if (context->message_block_index == kBlockSize) {
            process_block(context);
        }
    }
    return context->corrupted;
}

// Pads once, then writes H0..H4 most significant byte first.
int sha1_result(Sha1Context* context, uint8_t digest[SHA1_DIGEST_SIZE]) {
    if (context == nullptr || digest == nullptr) {
        return SHA1_ERR_ARGUMENT;
    }
    if (context->corrupted != 0) {
        return context->corrupted;
    }
    if (context->computed == 0) {
        pad_message(context);
        memset(context->message_block, 0, sizeof context->message_block);
        context->length_low = 0;
        context->length_high = 0;
        context->computed = 1;
    }
    for (int i = 0; i < SHA1_DIGEST_SIZE; ++i) {
        digest[i] = static_cast<uint8_t>(context->intermediate_hash[i / 4] >> (8 * (3 - i % 4)));
    }
    return SHA1_OK;
}

}  // namespace

const Sha1Module Sha1 = {
    .reset = sha1_reset,
    .input = sha1_input,
    .result = sha1_result,
};
