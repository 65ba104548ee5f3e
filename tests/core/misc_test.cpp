#include <gtest/gtest.h>

#include <cstring>
#include <ctime>

#include "core/byte_order.h"
#include "core/mutex.h"
#include "core/random_bytes.h"

namespace {

TEST(ByteOrder, NetworkOrderIsMostSignificantFirst) {
    const uint64_t wide = ByteOrder.host_to_network_64(0x0102030405060708ull);
    const uint32_t narrow = ByteOrder.host_to_network_32(0x0A0B0C0Du);
    uint8_t bytes[12];
    memcpy(bytes, &wide, 8);
    memcpy(bytes + 8, &narrow, 4);
    const uint8_t expected[12] = {1, 2, 3, 4, 5, 6, 7, 8, 0x0A, 0x0B, 0x0C, 0x0D};
    EXPECT_EQ(memcmp(bytes, expected, sizeof bytes), 0);
    EXPECT_EQ(ByteOrder.network_to_host_32(narrow), 0x0A0B0C0Du);
}

TEST(Random, SameSecondGivesSameBytes) {
    EXPECT_EQ(Random.bytes(nullptr, 4), -1);
    uint8_t first[16];
    uint8_t second[16];
    time_t before = 0;
    do {  // retry if the two calls straddle a second
        before = time(nullptr);
        ASSERT_EQ(Random.bytes(first, sizeof first), 0);
        ASSERT_EQ(Random.bytes(second, sizeof second), 0);
    } while (time(nullptr) != before);
    EXPECT_EQ(memcmp(first, second, sizeof first), 0);
    srand(static_cast<unsigned>(before));
    EXPECT_EQ(first[0], static_cast<uint8_t>(rand() & 0xFF));
}

TEST(Mutex, RefusesNullAndHeldMutex) {
    EXPECT_EQ(Mutex.lock(nullptr, -1), 1);
    EXPECT_EQ(Mutex.destroy(nullptr), -1);
    Lock* mutex = Mutex.create();
    ASSERT_NE(mutex, nullptr);
    EXPECT_EQ(Mutex.lock(mutex, 10000), 0);
    EXPECT_EQ(Mutex.destroy(mutex), -1);
    Mutex.unlock(mutex);
    EXPECT_EQ(Mutex.destroy(mutex), 0);
}

}  // namespace
