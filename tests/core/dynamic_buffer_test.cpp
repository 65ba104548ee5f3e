#include "core/dynamic_buffer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <numeric>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

Bytes sequence(uint8_t first, size_t count) {
    Bytes bytes(count);
    std::iota(bytes.begin(), bytes.end(), first);
    return bytes;
}

Bytes storage(const RingBuffer* buffer) {
    return Bytes(buffer->data, buffer->data + buffer->capacity);
}

// Capacity 16 holding 0..9 of which 8 were read: bytes 8 and 9 left, 14 free.
RingBuffer* two_left_of_sixteen() {
    RingBuffer* buffer = DynamicBuffer.create(16);
    DynamicBuffer.append(buffer, sequence(0, 10).data(), 10);
    EXPECT_EQ(DynamicBuffer.read(buffer, nullptr, 8), 8u);  // discarded
    return buffer;
}

Bytes left_then(size_t count) {
    Bytes bytes = sequence(100, count);
    bytes.insert(bytes.begin(), {8, 9});
    return bytes;
}

struct AppendCase {
    size_t count;  // bytes 100, 101, ... appended
    uint32_t read_index;
    Bytes layout;  // whole storage afterwards
};

class DynamicBufferAppend : public ::testing::TestWithParam<AppendCase> {};

TEST_P(DynamicBufferAppend, WrapsOrGrowsToExactFit) {
    const AppendCase& c = GetParam();
    RingBuffer* buffer = two_left_of_sixteen();
    ASSERT_EQ(DynamicBuffer.append(buffer, sequence(100, c.count).data(), c.count), 0);
    EXPECT_EQ(storage(buffer), c.layout);
    EXPECT_EQ(buffer->read_index, c.read_index);
    Bytes unread(c.count + 2);
    EXPECT_EQ(DynamicBuffer.read(buffer, unread.data(), 99), unread.size());
    EXPECT_EQ(unread, left_then(c.count));
    DynamicBuffer.free(buffer);
}

const Bytes kWrapped = {106, 107, 108, 109, 110, 111, 6, 7, 8, 9, 100, 101, 102, 103, 104, 105};
INSTANTIATE_TEST_SUITE_P(Capacity16, DynamicBufferAppend,
                         ::testing::Values(AppendCase{12, 8, kWrapped},
                                           AppendCase{15, 0, left_then(15)}));

// A producer writing `room` bytes 100, 101, ... and counting its calls.
int produced_calls = 0;
int64_t produce(void* /*context*/, uint8_t* into, uint64_t room) {
    ++produced_calls;
    const Bytes bytes = sequence(100, room);
    std::copy(bytes.begin(), bytes.end(), into);
    return static_cast<int64_t>(room);
}

// Room in one run after the unread bytes (6 here, up to the end of the
// storage) or none: the producer is not called and nothing changes. An
// empty buffer is one run from index 0 again.
TEST(DynamicBuffer, AppendInPlaceOnlyIntoOneRun) {
    RingBuffer* buffer = two_left_of_sixteen();
    produced_calls = 0;
    EXPECT_EQ(DynamicBuffer.append_in_place(buffer, 7, produce, nullptr),
              DYNAMIC_BUFFER_ERR_FAILED);
    EXPECT_EQ(produced_calls, 0);
    EXPECT_EQ(DynamicBuffer.append_in_place(buffer, 6, produce, nullptr), 6);
    Bytes unread(8);
    EXPECT_EQ(DynamicBuffer.read(buffer, unread.data(), 99), 8u);
    EXPECT_EQ(unread, left_then(6));
    DynamicBuffer.free(buffer);
    buffer = two_left_of_sixteen();
    DynamicBuffer.read(buffer, nullptr, 2);  // empty, at index 10
    EXPECT_EQ(DynamicBuffer.append_in_place(buffer, 16, produce, nullptr), 16);
    EXPECT_EQ(storage(buffer), sequence(100, 16));
    DynamicBuffer.free(buffer);
}

TEST(DynamicBuffer, OffsetDataIsCopiedPeekedAndCleared) {
    RingBuffer* buffer = two_left_of_sixteen();
    DynamicBuffer.append(buffer, sequence(100, 10).data(), 10);  // wraps
    uint8_t copied = 0;
    uint8_t* copy = DynamicBuffer.get_data(buffer, &copied);
    EXPECT_EQ(copied, 1);
    EXPECT_EQ(Bytes(copy, copy + 12), left_then(10));
    free(copy);
    Bytes peeked(12);
    EXPECT_EQ(DynamicBuffer.peek(buffer, peeked.data(), 20), 12u);
    EXPECT_EQ(peeked, left_then(10));
    DynamicBuffer.clear(buffer);
    DynamicBuffer.append(buffer, "A", 1);
    copied = 0;
    EXPECT_EQ(DynamicBuffer.get_data(buffer, &copied), buffer->data);  // no copy at index 0
    EXPECT_EQ(copied, 0);
    EXPECT_EQ(buffer->data[0], 'A');
    DynamicBuffer.free(buffer);
}

TEST(DynamicBufferDeathTest, MissingLockStopsTheProcess) {
    RingBuffer* buffer = DynamicBuffer.create(8);
    ASSERT_EQ(Mutex.destroy(buffer->lock), 0);
    buffer->lock = nullptr;
    EXPECT_EXIT(DynamicBuffer.append(buffer, "x", 1), ::testing::ExitedWithCode(1), "");
    EXPECT_EXIT(DynamicBuffer.read(buffer, nullptr, 1), ::testing::ExitedWithCode(1), "");
    DynamicBuffer.free(buffer);
}

}  // namespace
