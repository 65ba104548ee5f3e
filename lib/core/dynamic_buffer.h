// DynamicBuffer: the locked byte queue used for every queue of the library.
//
// A ring buffer that grows to exactly what an append needs (the unread bytes
// are then linearised at index 0) and never shrinks. Operations that touch
// bytes take the buffer's lock; a buffer whose lock is missing stops the
// process with status 1 rather than run unguarded.
#pragma once

#include <cstdint>

#include "core/module.h"
#include "core/mutex.h"

// Results: DYNAMIC_BUFFER_OK (0) success; DYNAMIC_BUFFER_ERR_FAILED (-1) a
// missing argument, or storage that cannot grow (logged).
enum DynamicBufferResult : int {
    DYNAMIC_BUFFER_OK = 0,
    DYNAMIC_BUFFER_ERR_FAILED = -1,
};

// The DynamicBuffer record.
struct RingBuffer {
    uint8_t* data;         // owned storage of `capacity` bytes
    uint32_t read_index;   // oldest unread byte
    uint32_t write_index;  // where the next byte goes
    uint32_t capacity;
    uint32_t length;  // unread bytes
    Lock* lock;       // owned
};

// Writes up to `room` bytes at `into`; returns how many, or a negative value.
using BufferProducer = int64_t (*)(void* context, uint8_t* into, uint64_t room);

struct DynamicBufferModule {
    // New buffer of `initial_capacity` bytes (0 means 2048), or null when
    // its storage or its lock cannot be made.
    RingBuffer* (*create)(uint32_t initial_capacity);
    EmptySlot unused;
    // Queues `count` bytes, growing exactly when needed. DYNAMIC_BUFFER_OK, or
    // DYNAMIC_BUFFER_ERR_FAILED for a null buffer or bytes, or when growth
    // failed (buffer unchanged).
    int (*append)(RingBuffer* buffer, const void* bytes, uint64_t count);
    // Moves up to `count` unread bytes into `destination` (discards them when
    // it is null). Returns the number moved; 0 for a null buffer.
    uint64_t (*read)(RingBuffer* buffer, void* destination, uint64_t count);
    // Copies up to `count` unread bytes without consuming them. Returns the
    // number copied; 0 for a null buffer or destination.
    uint64_t (*peek)(RingBuffer* buffer, void* destination, uint64_t count);
    // All unread bytes in one run, not consumed. When `read_index` is 0 and
    // *copied is not 1 this is the storage itself (do not free it, valid until
    // the next read or growing append); otherwise a malloc'd copy and *copied
    // is set to 1: the caller frees it. Null for a null buffer or when the
    // copy cannot be allocated.
    uint8_t* (*get_data)(RingBuffer* buffer, uint8_t* copied);
    // Unread byte count, read without the lock; 0 for a null buffer.
    uint32_t (*size)(RingBuffer* buffer);
    // Discards every unread byte; capacity is kept.
    void (*clear)(RingBuffer* buffer);
    // Releases storage, lock and record; null is ignored.
    void (*free)(RingBuffer* buffer);
    // Lets `produce` write up to `count` bytes straight after the unread
    // ones, with no copy, and queues what it wrote. Only when the storage has
    // `count` free bytes in one run there (it never grows here). Returns
    // produce's result: the count written, or a negative value (nothing
    // queued); DYNAMIC_BUFFER_ERR_FAILED without calling it for a null
    // buffer or producer, or too little room in one run.
    int64_t (*append_in_place)(RingBuffer* buffer, uint64_t count, BufferProducer produce,
                               void* context);
};

extern const DynamicBufferModule DynamicBuffer;
