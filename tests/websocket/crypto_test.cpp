#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <string>

#include "websocket/crypto.h"

using namespace std::string_literals;

namespace {

std::string hex(const uint8_t* bytes) {
    char text[2 * SHA1_DIGEST_SIZE + 1];
    for (int i = 0; i < SHA1_DIGEST_SIZE; ++i) {
        snprintf(text + 2 * i, 3, "%02x", bytes[i]);
    }
    return text;
}

const uint8_t* bytes_of(const std::string& text) {
    return reinterpret_cast<const uint8_t*>(text.data());
}

// FIPS 180-1 vectors, then lengths around the padding boundaries.
// clang-format off
const std::pair<std::string, const char*> kDigests[] = {
    {"abc", "a9993e364706816aba3e25717850c26c9cd0d89d"},
    {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
     "84983e441c3bd26ebaae4aa1f95129e5e54670f1"},
    {std::string(1000000, 'a'), "34aa973cd4c4daa4f61eeb2bdbad27316534016f"},
    {std::string(55, 'a'), "c1c8bbdc22796e28c0e15163d20899b65621d65a"},
    {std::string(56, 'a'), "c2db330f6083854c99d4b5bfb6e8f29f201be699"},
};
// clang-format on

TEST(Sha1, KnownDigestsOneShotAndInPieces) {
    for (const auto& [message, expected] : kDigests) {
        uint8_t digest[SHA1_DIGEST_SIZE];
        ASSERT_EQ(Crypto.sha1_compute(bytes_of(message), message.size(), digest), 0);
        EXPECT_EQ(hex(digest), expected) << message.size();

        // Uneven pieces cross block boundaries at every offset.
        Sha1Context context;
        ASSERT_EQ(Sha1.reset(&context), 0);
        for (size_t done = 0, piece = 1; done < message.size();
             done += piece, piece = piece % 70 + 1) {
            piece = std::min(piece, message.size() - done);
            ASSERT_EQ(Sha1.input(&context, bytes_of(message) + done, static_cast<uint32_t>(piece)),
                      0);
        }
        ASSERT_EQ(Sha1.result(&context, digest), 0);
        EXPECT_EQ(hex(digest), expected) << message.size();
    }
}

TEST(Sha1, ErrorCodesAndResultRepeats) {
    uint8_t digest[SHA1_DIGEST_SIZE];
    uint8_t again[SHA1_DIGEST_SIZE];
    const uint8_t byte = 'a';
    EXPECT_EQ(Crypto.sha1_compute(nullptr, 3, digest), -1);
    EXPECT_EQ(Crypto.sha1_compute(&byte, 0, digest), -1);
    EXPECT_EQ(Crypto.sha1_compute(&byte, 1, nullptr), -3);
    Sha1Context context;
    EXPECT_EQ(Sha1.reset(nullptr), -1);
    ASSERT_EQ(Sha1.reset(&context), 0);
    EXPECT_EQ(Sha1.input(&context, &byte, 0), -1);
    EXPECT_EQ(Sha1.input(&context, nullptr, 1), -2);
    EXPECT_EQ(Sha1.result(nullptr, digest), -1);
    // A second result repeats the digest; input after it poisons the context.
    ASSERT_EQ(Sha1.input(&context, &byte, 1), 0);
    ASSERT_EQ(Sha1.result(&context, digest), 0);
    ASSERT_EQ(Sha1.result(&context, again), 0);
    EXPECT_EQ(hex(digest), hex(again));
    EXPECT_EQ(Sha1.input(&context, &byte, 1), -3);
    EXPECT_EQ(Sha1.result(&context, digest), -3);
}

const std::string kLine(72, 'A');

// RFC 4648 vectors, the handshake's 16 and 20 bytes, and line breaking: a
// full line of 72 characters is followed by a line feed, even the last one.
// clang-format off
const std::pair<std::string, std::string> kBase64[] = {
    {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"}, {"foob", "Zm9vYg=="},
    {"fooba", "Zm9vYmE="}, {"foobar", "Zm9vYmFy"},
    {"\0\1\2\3\4\5\6\7\10\11\12\13\14\15\16\17"s, "AAECAwQFBgcICQoLDA0ODw=="},
    {"\0\1\2\3\4\5\6\7\10\11\12\13\14\15\16\17\20\21\22\23"s, "AAECAwQFBgcICQoLDA0ODxAREhM="},
    {std::string(54, '\0'), kLine + "\n"}, {std::string(57, '\0'), kLine + "\nAAAA"},
};
// clang-format on

TEST(Base64, EncodesWithPaddingAndLineFeeds) {
    for (const auto& [source, expected] : kBase64) {
        uint64_t length = 99;
        char* text = Crypto.base64_encode(bytes_of(source), source.size(), &length);
        ASSERT_NE(text, nullptr);
        EXPECT_EQ(text, expected);
        EXPECT_EQ(length, expected.size());
        free(text);
    }
    const uint8_t byte = 0;
    EXPECT_EQ(Crypto.base64_encode(&byte, UINT64_MAX / 2, nullptr), nullptr);
    EXPECT_EQ(Crypto.base64_encode(nullptr, 3, nullptr), nullptr);
}

}  // namespace
