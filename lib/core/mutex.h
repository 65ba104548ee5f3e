// Mutex: a small owner of a pthread mutex, used by the dispatcher, the
// buffers and the connections. In the tool it is never contended.
#pragma once

#include <cstdint>

struct Lock;  // opaque; the record of the Mutex module

// Results: MUTEX_OK (0); MUTEX_NONE (1) `lock` was given no mutex;
// MUTEX_ERR_BUSY (-1) `destroy` was given no mutex or a held one.
enum MutexResult : int {
    MUTEX_OK = 0,
    MUTEX_NONE = 1,
    MUTEX_ERR_BUSY = -1,
};

struct MutexModule {
    // New mutex with default attributes, or null.
    Lock* (*create)();
    // MUTEX_NONE for a null mutex; otherwise waits without limit and returns
    // MUTEX_OK. The timeout in milliseconds is accepted and ignored.
    int (*lock)(Lock* mutex, int64_t timeout_ms);
    // Null is ignored.
    void (*unlock)(Lock* mutex);
    // MUTEX_ERR_BUSY for null or when it cannot be destroyed (held);
    // otherwise frees it, MUTEX_OK.
    int (*destroy)(Lock* mutex);
};

extern const MutexModule Mutex;
