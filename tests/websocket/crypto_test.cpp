#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <string>

#include "websocket/crypto.h"
#include "websocket/sha1.h"

using namespace std::string_literals;

namespace {

std::string hex(const uint8_t* bytes, size_t count) {
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (size_t i = 0; i < count; ++i) {
        text += digits[bytes[i] >> 4];
        text += digits[bytes[i] & 15];
    }
    return text;
}

const uint8_t* bytes_of(const std::string& text) {
    return reinterpret_cast<const uint8_t*>(text.data());
}

struct DigestCase {
    std::string message;
    const char* digest;
};

// FIPS 180-1 vectors, then lengths around the padding boundaries.
const DigestCase kDigests[] = {
    {"abc", "a9993e364706816aba3e25717850c26c9cd0d89d"},
    {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
     "84983e441c3bd26ebaae4aa1f95129e5e54670f1"},
    {std::string(1000000, 'a'), "34aa973cd4c4daa4f61eeb2bdbad27316534016f"},
    {std::string(55, 'a'), "c1c8bbdc22796e28c0e15163d20899b65621d65a"},
    {std::string(56, 'a'), "c2db330f6083854c99d4b5bfb6e8f29f201be699"},
    {std::string(64, 'a'), "0098ba824b5c16427bd7a1122a5a442a25ec644d"},
    {std::string(119, 'a'), "ee971065aaa017e0632a8ca6c77bb3bf8b1dfc56"},
};

TEST(Sha1, KnownDigestsOneShotAndInPieces) {
    for (const auto& c : kDigests) {
        uint8_t digest[SHA1_DIGEST_SIZE];
        ASSERT_EQ(Crypto.sha1_compute(bytes_of(c.message), c.message.size(), digest), 0);
        EXPECT_EQ(hex(digest, sizeof digest), c.digest) << c.message.size();

        // Uneven pieces cross block boundaries at every offset.
        Sha1Context context;
        ASSERT_EQ(Sha1.reset(&context), 0);
        for (size_t done = 0, piece = 1; done < c.message.size();
             done += piece, piece = piece % 70 + 1) {
            piece = std::min(piece, c.message.size() - done);
            ASSERT_EQ(
                Sha1.input(&context, bytes_of(c.message) + done, static_cast<uint32_t>(piece)), 0);
        }
        ASSERT_EQ(Sha1.result(&context, digest), 0);
        EXPECT_EQ(hex(digest, sizeof digest), c.digest) << c.message.size();
    }
}

TEST(Sha1, ComputeRefusesBadArgumentsWithoutTouchingDigest) {
    uint8_t digest[SHA1_DIGEST_SIZE] = {7};
    const uint8_t byte = 1;
    EXPECT_EQ(Crypto.sha1_compute(nullptr, 3, digest), -1);
    EXPECT_EQ(Crypto.sha1_compute(&byte, 0, digest), -1);
    EXPECT_EQ(digest[0], 7);
    EXPECT_EQ(Crypto.sha1_compute(&byte, 1, nullptr), -3);
}

TEST(Sha1, ContextErrorCodes) {
    Sha1Context context;
    uint8_t digest[SHA1_DIGEST_SIZE];
    const uint8_t byte = 'a';
    EXPECT_EQ(Sha1.reset(nullptr), -1);
    ASSERT_EQ(Sha1.reset(&context), 0);
    EXPECT_EQ(Sha1.input(&context, &byte, 0), -1);
    EXPECT_EQ(Sha1.input(&context, nullptr, 1), -2);
    EXPECT_EQ(Sha1.input(nullptr, &byte, 1), -2);
    EXPECT_EQ(Sha1.result(nullptr, digest), -1);
    EXPECT_EQ(Sha1.result(&context, nullptr), -1);

    // Result twice gives the same digest; input after it poisons the context.
    uint8_t again[SHA1_DIGEST_SIZE];
    ASSERT_EQ(Sha1.input(&context, &byte, 1), 0);
    ASSERT_EQ(Sha1.result(&context, digest), 0);
    ASSERT_EQ(Sha1.result(&context, again), 0);
    EXPECT_EQ(hex(digest, 20), hex(again, 20));
    EXPECT_EQ(Sha1.input(&context, &byte, 1), -3);
    EXPECT_EQ(Sha1.input(&context, &byte, 1), -3);
    EXPECT_EQ(Sha1.result(&context, digest), -3);
    ASSERT_EQ(Sha1.reset(&context), 0);
    EXPECT_EQ(Sha1.input(&context, &byte, 1), 0);
}

std::string patterned(size_t count) {
    std::string bytes;
    for (size_t i = 0; i < count; ++i) {
        bytes += static_cast<char>((i * 37 + 11) & 255);
    }
    return bytes;
}

struct Base64Case {
    std::string source;
    std::string expected;
};

const std::string kLine54 =
    "CzBVep/E6Q4zWH2ix+wRNluApcrvFDleg6jN8hc8YYar0PUaP2SJrtP4HUJnjLHW+yBFao+0";

const Base64Case kBase64[] = {
    {"", ""},
    {"f", "Zg=="},
    {"fo", "Zm8="},
    {"foo", "Zm9v"},
    {"foob", "Zm9vYg=="},
    {"fooba", "Zm9vYmE="},
    {"foobar", "Zm9vYmFy"},
    {"\x00\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0a\x0b\x0c\x0d\x0e\x0f"s,
     "AAECAwQFBgcICQoLDA0ODw=="},
    {"\x00\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0a\x0b\x0c\x0d\x0e\x0f\x10\x11\x12\x13"s,
     "AAECAwQFBgcICQoLDA0ODxAREhM="},
    // A full line of 72 characters is followed by a line feed, even last.
    {patterned(54), kLine54 + "\n"},
    {patterned(57), kLine54 + "\n2f4j"},
};

TEST(Base64, EncodesWithPaddingAndLineFeeds) {
    for (const auto& c : kBase64) {
        uint64_t length = 99;
        char* text = Crypto.base64_encode(bytes_of(c.source), c.source.size(), &length);
        ASSERT_NE(text, nullptr);
        EXPECT_EQ(text, c.expected);
        EXPECT_EQ(length, c.expected.size());
        free(text);
    }
    char* text = Crypto.base64_encode(bytes_of(kBase64[1].source), 1, nullptr);
    EXPECT_STREQ(text, "Zg==");
    free(text);
}

TEST(Base64, RefusesOverflowingAndMissingSource) {
    const uint8_t byte = 0;
    EXPECT_EQ(Crypto.base64_encode(&byte, UINT64_MAX / 2, nullptr), nullptr);
    EXPECT_EQ(Crypto.base64_encode(nullptr, 3, nullptr), nullptr);
}

TEST(RandomBytes, FillsAndRefusesNullBuffer) {
    uint8_t nonce[16] = {};
    EXPECT_EQ(Crypto.random_bytes(nullptr, 16), -1);
    EXPECT_EQ(Crypto.random_bytes(nonce, sizeof nonce), 0);
}

}  // namespace
