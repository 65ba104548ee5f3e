#include "core/byte_order.h"

#include <cstring>

namespace {

// Looks at the first byte of a stored 1 rather than trusting compile-time macros.
int is_big_endian() {
    const uint32_t one = 1;
    unsigned char first = 0;
    memcpy(&first, &one, 1);
    return first == 0 ? 1 : 0;
}

uint32_t swap_32(uint32_t value) {
    return ((value & 0x000000FFu) << 24) | ((value & 0x0000FF00u) << 8) |
           ((value & 0x00FF0000u) >> 8) | ((value & 0xFF000000u) >> 24);
}

uint64_t host_to_network_64(uint64_t value) {
    if (is_big_endian() != 0) {
        return value;
    }
    return (static_cast<uint64_t>(swap_32(static_cast<uint32_t>(value))) << 32) |
           swap_32(static_cast<uint32_t>(value >> 32));
}

// The swap is its own inverse, so both directions share it.
uint32_t convert_32(uint32_t value) {
    return is_big_endian() != 0 ? value : swap_32(value);
}

}  // namespace

const ByteOrderModule ByteOrder = {
    .is_big_endian = is_big_endian,
    .host_to_network_64 = host_to_network_64,
    .host_to_network_32 = convert_32,
    .network_to_host_32 = convert_32,
};
