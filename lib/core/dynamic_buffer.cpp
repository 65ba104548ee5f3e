#include "core/dynamic_buffer.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "core/logger.h"

namespace {

constexpr uint32_t DEFAULT_CAPACITY = 2048;
constexpr int64_t LOCK_TIMEOUT_MS = 10000;

// Takes the buffer's lock or stops the process: a buffer is never used unguarded.
void lock_or_exit(RingBuffer* buffer) {
    if (Mutex.lock(buffer->lock, LOCK_TIMEOUT_MS) != 0) {
        Logger.fatal(
            "Unable to acquire Dynamic Buffer lock. Stopping program for avoiding race "
            "condition.");
        exit(1);
    }
}

// Copies `count` unread bytes starting `offset` past `read_index` into
// `destination`, in at most two runs around the end of the storage.
void copy_out(const RingBuffer* buffer, uint64_t offset, uint8_t* destination, uint64_t count) {
    const uint64_t start = (buffer->read_index + offset) % buffer->capacity;
    const uint64_t first = std::min<uint64_t>(count, buffer->capacity - start);
    memcpy(destination, buffer->data + start, first);
    memcpy(destination + first, buffer->data, count - first);
}

// New empty buffer, or null. A buffer whose lock cannot be made is refused
// here: used, it would stop the process at its first locked call with no
// word to the user.
RingBuffer* buffer_create(uint32_t initial_capacity) {
    auto* buffer = static_cast<RingBuffer*>(calloc(1, sizeof(RingBuffer)));
    if (buffer == nullptr) {
        Logger.fatal("Could not allocate memory for DynamicBuffer");
        return nullptr;
    }
    const uint32_t capacity = initial_capacity == 0 ? DEFAULT_CAPACITY : initial_capacity;
    buffer->data = static_cast<uint8_t*>(malloc(capacity));
    if (buffer->data == nullptr) {
        Logger.fatal("Could not allocate buffer for DynamicBuffer");
        free(buffer);
        return nullptr;
    }
    buffer->capacity = capacity;
    buffer->lock = Mutex.create();
    if (buffer->lock == nullptr) {
        Logger.fatal("Could not create the lock of a DynamicBuffer");
        free(buffer->data);
        free(buffer);
        return nullptr;
    }
    return buffer;
}

// Replaces the storage by one of exactly length + count bytes holding the
// unread bytes then `bytes`. -1 and nothing changed when it cannot.
int grow_with(RingBuffer* buffer, const uint8_t* bytes, uint64_t count) {
    const uint64_t needed = buffer->length + count;
    if (needed > UINT32_MAX) {
        Logger.error("Unable to grow DynamicBuffer past 4 GiB");
        return DYNAMIC_BUFFER_ERR_FAILED;
    }
    auto* storage = static_cast<uint8_t*>(malloc(needed));
    if (storage == nullptr) {
        Logger.error("Unable to allocate %llu bytes for DynamicBuffer",
                     static_cast<unsigned long long>(needed));
        return DYNAMIC_BUFFER_ERR_FAILED;
    }
    copy_out(buffer, 0, storage, buffer->length);
    memcpy(storage + buffer->length, bytes, count);
    free(buffer->data);
    buffer->data = storage;
    buffer->capacity = static_cast<uint32_t>(needed);
    buffer->length = static_cast<uint32_t>(needed);
    buffer->read_index = 0;
    buffer->write_index = 0;
    return DYNAMIC_BUFFER_OK;
}

// Queues a copy of `bytes`; the caller keeps them.
int buffer_append(RingBuffer* buffer, const void* bytes, uint64_t count) {
    if (buffer == nullptr || bytes == nullptr) {
        return DYNAMIC_BUFFER_ERR_FAILED;
    }
    const auto* source = static_cast<const uint8_t*>(bytes);
    int result = DYNAMIC_BUFFER_OK;
    lock_or_exit(buffer);
    if (buffer->capacity - buffer->length < count) {
        result = grow_with(buffer, source, count);
    } else if (count > 0) {
        const uint32_t start = buffer->write_index;
        const uint64_t first = std::min<uint64_t>(count, buffer->capacity - start);
        memcpy(buffer->data + start, source, first);
        memcpy(buffer->data, source + first, count - first);
        buffer->length += static_cast<uint32_t>(count);
        buffer->write_index = static_cast<uint32_t>((start + count) % buffer->capacity);
    }
    Mutex.unlock(buffer->lock);
    return result;
}

// Consumes up to `count` bytes into `destination`, or drops them when it is null.
uint64_t buffer_read(RingBuffer* buffer, void* destination, uint64_t count) {
    if (buffer == nullptr) {
        return 0;
    }
    lock_or_exit(buffer);
    const uint64_t moved = std::min<uint64_t>(count, buffer->length);
    if (destination != nullptr) {
        copy_out(buffer, 0, static_cast<uint8_t*>(destination), moved);
    }
    buffer->read_index = static_cast<uint32_t>((buffer->read_index + moved) % buffer->capacity);
    buffer->length -= static_cast<uint32_t>(moved);
    Mutex.unlock(buffer->lock);
    return moved;
}

// Copies up to `count` unread bytes, consuming nothing.
uint64_t buffer_peek(RingBuffer* buffer, void* destination, uint64_t count) {
    if (buffer == nullptr) {
        return 0;
    }
    if (destination == nullptr) {
        Logger.error("Unable to copy data from dynamic buffer to destination because dest is NULL");
        return 0;
    }
    // Bounded by an unlocked read of length, like `size`.
    const uint64_t copied = std::min<uint64_t>(count, buffer->length);
    lock_or_exit(buffer);
    copy_out(buffer, 0, static_cast<uint8_t*>(destination), copied);
    Mutex.unlock(buffer->lock);
    return copied;
}

// Unread bytes in one run: the storage itself when they already start at 0
// and no copy was asked for, else a malloc'd copy flagged through *copied.
uint8_t* buffer_get_data(RingBuffer* buffer, uint8_t* copied) {
    if (buffer == nullptr) {
        return nullptr;
    }
    const bool want_copy = copied != nullptr && *copied == 1;
    lock_or_exit(buffer);
    uint8_t* result = buffer->data;  // read under the lock: a growing append replaces it
    if (buffer->read_index != 0 || want_copy) {
        result = static_cast<uint8_t*>(malloc(std::max<uint32_t>(buffer->length, 1)));
        if (result != nullptr) {
            copy_out(buffer, 0, result, buffer->length);
        }
        if (copied != nullptr) {
            *copied = 1;
        }
    }
    Mutex.unlock(buffer->lock);
    return result;
}

// Unread byte count without the lock: may be stale under concurrent use.
uint32_t buffer_size(RingBuffer* buffer) {
    return buffer == nullptr ? 0 : buffer->length;
}

// Drops every unread byte; the next append writes at 0.
void buffer_clear(RingBuffer* buffer) {
    if (buffer == nullptr) {
        return;
    }
    lock_or_exit(buffer);
    buffer->read_index = 0;
    buffer->write_index = 0;
    buffer->length = 0;
    Mutex.unlock(buffer->lock);
}

// Releases everything without locking: no other thread may still use it.
void buffer_free(RingBuffer* buffer) {
    if (buffer == nullptr) {
        return;
    }
    Mutex.destroy(buffer->lock);
    free(buffer->data);
    free(buffer);
}

// Free bytes in one run from write_index: up to the end of the storage while
// the unread bytes do not wrap, else up to read_index.
uint64_t room_in_one_run(const RingBuffer* buffer) {
    if (buffer->length == buffer->capacity) {
        return 0;
    }
    if (buffer->length == 0 || buffer->write_index > buffer->read_index) {
        return buffer->capacity - buffer->write_index;
    }
    return buffer->read_index - buffer->write_index;
}

// `produce` writes into the storage itself; the lock is held meanwhile.
int64_t buffer_append_in_place(RingBuffer* buffer, uint64_t count, BufferProducer produce,
                               void* context) {
    if (buffer == nullptr || produce == nullptr) {
        return DYNAMIC_BUFFER_ERR_FAILED;
    }
    lock_or_exit(buffer);
    if (buffer->length == 0) {  // the whole storage is one run again
        buffer->read_index = 0;
        buffer->write_index = 0;
    }
    int64_t written = DYNAMIC_BUFFER_ERR_FAILED;
    if (room_in_one_run(buffer) >= count) {
        written = produce(context, buffer->data + buffer->write_index, count);
    }
    if (written > 0) {
        const uint64_t added = std::min<uint64_t>(static_cast<uint64_t>(written), count);
        buffer->length += static_cast<uint32_t>(added);
        buffer->write_index =
            static_cast<uint32_t>((buffer->write_index + added) % buffer->capacity);
    }
    Mutex.unlock(buffer->lock);
    return written;
}

}  // namespace

const DynamicBufferModule DynamicBuffer = {
    .create = buffer_create,
    .unused = empty_slot,
    .append = buffer_append,
    .read = buffer_read,
    .peek = buffer_peek,
    .get_data = buffer_get_data,
    .size = buffer_size,
    .clear = buffer_clear,
    .free = buffer_free,
    .append_in_place = buffer_append_in_place,
};
