// ByteOrder: host/network conversions for the WebSocket length fields. The
// host's order is found at run time by storing the 32-bit value 1 and
// looking at its first byte.
#pragma once

#include <cstdint>

struct ByteOrderModule {
    // 1 on a big-endian host, 0 otherwise.
    int (*is_big_endian)();
    uint64_t (*host_to_network_64)(uint64_t value);
    uint32_t (*host_to_network_32)(uint32_t value);
    uint32_t (*network_to_host_32)(uint32_t value);
};

extern const ByteOrderModule ByteOrder;
