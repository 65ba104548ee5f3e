// Random: the handshake nonce's source, and the frame masks and command ids
// drawn after it. The generator gives the C library's srand()/rand() numbers
// for the same seed; `bytes` reseeds it with the current time at every call,
// then keeps the low byte of each value: predictable, and the same within one
// second. That weak source is chosen on purpose; do not use it for anything
// secret.
#pragma once

#include <cstdint>

// Results: RANDOM_OK (0); RANDOM_ERR_ARGUMENT (-1) a null buffer.
enum RandomResult : int {
    RANDOM_OK = 0,
    RANDOM_ERR_ARGUMENT = -1,
};

struct RandomModule {
    // Fills `count` bytes. RANDOM_OK, or RANDOM_ERR_ARGUMENT.
    int (*bytes)(uint8_t* buffer, uint64_t count);
    // Restarts the sequence, as srand() would.
    void (*seed)(unsigned seed);
    // Next value in [0, RAND_MAX], as rand() would give; seed 1 if never seeded.
    int (*next)();
};

extern const RandomModule Random;
