// Random: the handshake nonce's source. Seeds the C library's generator with
// the current time at every call, then keeps the low byte of each rand():
// predictable, and the same within one second. That weak source is chosen
// for the handshake nonce; do not use it for anything secret.
#pragma once

#include <cstdint>

struct RandomModule {
    // Fills `count` bytes. -1 for a null buffer, 0 otherwise.
    int (*bytes)(uint8_t* buffer, uint64_t count);
};

extern const RandomModule Random;
