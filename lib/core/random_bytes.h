// Random: the handshake nonce's source. Seeds the C library's generator with
// the current time at every call, then keeps the low byte of each rand():
// predictable, and the same within one second. That weak source is chosen
// for the handshake nonce; do not use it for anything secret.
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
};

extern const RandomModule Random;
