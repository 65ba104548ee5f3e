#include "core/random_bytes.h"

#include <cstdlib>
#include <ctime>

namespace {

// Reseeds with the current second on every call: two calls in one second give
// the same bytes. Good enough for a handshake nonce, nothing more.
int random_fill(uint8_t* buffer, uint64_t count) {
    if (buffer == nullptr) {
        return RANDOM_ERR_ARGUMENT;
    }
    srand(static_cast<unsigned>(time(nullptr)));
    for (uint64_t i = 0; i < count; ++i) {
        buffer[i] = static_cast<uint8_t>(rand() & 0xFF);
    }
    return RANDOM_OK;
}

}  // namespace

const RandomModule Random = {.bytes = random_fill};
