// SHA-1 against the published vectors, fed in pieces of every size so that
// block boundaries fall everywhere, and the 64-bit bit count's wrap.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "websocket/sha1.h"

namespace {

struct Vector {
    std::string message;
    int repeat;
    const char* digest;
};

std::string hex(const uint8_t* bytes) {
    std::string text;
    char two[3];
    for (int i = 0; i < SHA1_DIGEST_SIZE; ++i) {
        snprintf(two, sizeof two, "%02x", bytes[i]);
        text += two;
    }
    return text;
}

// Digest of `vector`, fed `piece` bytes per input call.
std::string digest_in_pieces(const Vector& vector, size_t piece) {
    std::string message;
    for (int i = 0; i < vector.repeat; ++i) {
        message += vector.message;
    }
    Sha1Context context;
    EXPECT_EQ(Sha1.reset(&context), SHA1_OK);
    for (size_t at = 0; at < message.size(); at += piece) {
        const size_t size = std::min(piece, message.size() - at);
        EXPECT_EQ(Sha1.input(&context, reinterpret_cast<const uint8_t*>(message.data() + at),
                             static_cast<uint32_t>(size)),
                  SHA1_OK);
    }
    uint8_t digest[SHA1_DIGEST_SIZE];
    EXPECT_EQ(Sha1.result(&context, digest), SHA1_OK);
    return hex(digest);
}

class Sha1Vectors : public ::testing::TestWithParam<Vector> {};

TEST_P(Sha1Vectors, SameDigestWhateverThePieces) {
    for (size_t piece : {1, 3, 55, 56, 63, 64, 65, 200, 100000}) {
        EXPECT_EQ(digest_in_pieces(GetParam(), piece), GetParam().digest) << "pieces of " << piece;
    }
}

// RFC 3174's four tests, and the handshake's own input (RFC 6455's example).
INSTANTIATE_TEST_SUITE_P(
    Published, Sha1Vectors,
    ::testing::Values(Vector{"abc", 1, "a9993e364706816aba3e25717850c26c9cd0d89d"},
                      Vector{"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq", 1,
                             "84983e441c3bd26ebaae4aa1f95129e5e54670f1"},
                      Vector{"a", 1000000, "34aa973cd4c4daa4f61eeb2bdbad27316534016f"},
                      Vector{"0123456701234567012345670123456701234567012345670123456701234567", 10,
                             "dea356a2cddd90c7a7ecedc5ebb563934f460452"},
                      Vector{"dGhlIHNhbXBsZSBub25jZQ==258EAFA5-E914-47DA-95CA-C5AB0DC85B11", 1,
                             "b37a4f2cc0624f1690f64606cf385945b2bec4ea"}));

// A count that wraps past 2^64 bits poisons the context at that byte.
TEST(Sha1Length, WrapOfTheBitCountIsTooLong) {
    Sha1Context context;
    Sha1.reset(&context);
    context.length_high = UINT32_MAX;
    context.length_low = 0u - 8 * 11;  // the eleventh byte from here wraps the count
    const uint8_t bytes[40] = {};
    EXPECT_EQ(Sha1.input(&context, bytes, 10), SHA1_OK);
    EXPECT_EQ(Sha1.input(&context, bytes, 40), SHA1_ERR_TOO_LONG);
    EXPECT_EQ(context.message_block_index, 11);
    uint8_t digest[SHA1_DIGEST_SIZE];
    EXPECT_EQ(Sha1.result(&context, digest), SHA1_ERR_TOO_LONG);
}

}  // namespace
