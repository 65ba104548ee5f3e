#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

#include "core/random_bytes.h"

namespace {

// The masks and command ids on the wire are the C library's numbers for the
// nonce's seed: the generator must give exactly those, warm-up and wrap of
// its ring included, for any seed (0 means 1, the top bit set is negative).
class SameAsCLibrary : public ::testing::TestWithParam<unsigned> {};

TEST_P(SameAsCLibrary, SequenceMatchesSrandRand) {
    Random.seed(GetParam());
    srand(GetParam());
    for (int i = 0; i < 200; ++i) {
        ASSERT_EQ(Random.next(), rand()) << "draw " << i;
    }
}

INSTANTIATE_TEST_SUITE_P(Seeds, SameAsCLibrary,
                         ::testing::Values(0u, 1u, 1234u, 1795000000u, 2147483647u, 2147483648u,
                                           4294967295u));

// The nonce is the low bytes of the values drawn from the current second.
TEST(RandomBytes, LowBytesOfTheSecondsSequence) {
    uint8_t nonce[16];
    const unsigned now = static_cast<unsigned>(time(nullptr));
    ASSERT_EQ(Random.bytes(nonce, sizeof nonce), RANDOM_OK);
    if (static_cast<unsigned>(time(nullptr)) != now) {
        GTEST_SKIP() << "the second changed during the draw";
    }
    srand(now);
    for (uint8_t byte : nonce) {
        EXPECT_EQ(byte, rand() & 0xFF);
    }
    EXPECT_EQ(Random.bytes(nullptr, 1), RANDOM_ERR_ARGUMENT);
}

}  // namespace
