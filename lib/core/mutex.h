// Mutex: a small owner of a pthread mutex, used by the dispatcher, the
// buffers and the connections. In the tool it is never contended.
#pragma once

#include <cstdint>

struct Lock;  // opaque; the record of the Mutex module

struct MutexModule {
    // New mutex with default attributes, or null.
    Lock* (*create)();
    // 1 for a null mutex; otherwise waits without limit and returns 0. The
    // timeout in milliseconds is accepted and ignored.
    int (*lock)(Lock* mutex, int64_t timeout_ms);
    // Null is ignored.
    void (*unlock)(Lock* mutex);
    // -1 for null or when it cannot be destroyed (held); otherwise frees it, 0.
    int (*destroy)(Lock* mutex);
};

extern const MutexModule Mutex;
