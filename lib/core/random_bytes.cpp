#include "core/random_bytes.h"

#include <cstdlib>
#include <ctime>

namespace {

// The C library's default generator (additive feedback, x[i] = x[i-3] +
// x[i-31]), kept here so that seeding costs one straight pass over a flat
// array instead of 310 calls through its lock. Same seeds, same numbers.
constexpr int kDegree = 31;
constexpr int kLag = 3;
constexpr int kWarmUp = 10 * kDegree;

struct Generator {
    uint32_t ring[kDegree];
    int front;  // index of x[i-31]; x[i-3] is kLag before the slot it writes
    bool seeded;
};

Generator generator;

// Fills the ring from `seed` and runs the warm-up; the ring then holds the
// last 31 values, oldest at index 0.
void seed_generator(unsigned seed) {
    uint32_t start[kDegree];
    int32_t word = static_cast<int32_t>(seed == 0 ? 1 : seed);
    start[0] = static_cast<uint32_t>(word);
    for (int i = 1; i < kDegree; ++i) {
        // 16807 * word % (2^31 - 1) without overflowing 31 bits
        const int32_t hi = word / 127773;
        const int32_t lo = word % 127773;
        word = 16807 * lo - 2836 * hi;
        if (word < 0) {
            word += 2147483647;
        }
        start[i] = static_cast<uint32_t>(word);
    }
    // The C library's first sum is start[3] + start[0]: in the order the
    // values are consumed, the seeded table begins at its fourth entry.
    uint32_t x[kDegree + kWarmUp];
    for (int i = 0; i < kDegree; ++i) {
        x[i] = start[(i + kLag) % kDegree];
    }
    for (int i = kDegree; i < kDegree + kWarmUp; ++i) {
        x[i] = x[i - kDegree] + x[i - kLag];
    }
    for (int i = 0; i < kDegree; ++i) {
        generator.ring[i] = x[kWarmUp + i];
    }
    generator.front = 0;
    generator.seeded = true;
}

// Next value in [0, RAND_MAX]; an unseeded generator starts from seed 1.
int next_value() {
    if (!generator.seeded) {
        seed_generator(1);
    }
    const int at = generator.front;
    const int lagged = at >= kLag ? at - kLag : at + kDegree - kLag;
    const uint32_t value = generator.ring[at] + generator.ring[lagged];
    generator.ring[at] = value;
    generator.front = at + 1 == kDegree ? 0 : at + 1;
    return static_cast<int>(value >> 1);
}

// Reseeds with the current second on every call: two calls in one second give
// the same bytes. Good enough for a handshake nonce, nothing more.
int random_fill(uint8_t* buffer, uint64_t count) {
    if (buffer == nullptr) {
        return RANDOM_ERR_ARGUMENT;
    }
    seed_generator(static_cast<unsigned>(time(nullptr)));
    for (uint64_t i = 0; i < count; ++i) {
        buffer[i] = static_cast<uint8_t>(next_value() & 0xFF);
    }
    return RANDOM_OK;
}

}  // namespace

const RandomModule Random = {.bytes = random_fill, .seed = seed_generator, .next = next_value};
