#include "core/mutex.h"

#include <pthread.h>

#include <cstdlib>

struct Lock {
    pthread_mutex_t handle;
};

namespace {

// New heap mutex with default attributes; the caller destroys it.
Lock* mutex_create() {
    auto* mutex = static_cast<Lock*>(malloc(sizeof(Lock)));
    if (mutex != nullptr && pthread_mutex_init(&mutex->handle, nullptr) != 0) {
        free(mutex);
        mutex = nullptr;
    }
    return mutex;
}

// Waits without limit: no caller relies on the timeout, so it is ignored.
int mutex_lock(Lock* mutex, int64_t /*timeout_ms*/) {
    if (mutex == nullptr) {
        return MUTEX_NONE;
    }
    pthread_mutex_lock(&mutex->handle);
    return MUTEX_OK;
}

// Releases a mutex held by this thread; null is ignored.
void mutex_unlock(Lock* mutex) {
    if (mutex != nullptr) {
        pthread_mutex_unlock(&mutex->handle);
    }
}

// Frees the mutex unless it is still held (then -1 and nothing freed).
int mutex_destroy(Lock* mutex) {
    if (mutex == nullptr || pthread_mutex_destroy(&mutex->handle) != 0) {
        return MUTEX_ERR_BUSY;
    }
    free(mutex);
    return MUTEX_OK;
}

}  // namespace

const MutexModule Mutex = {
    .create = mutex_create,
    .lock = mutex_lock,
    .unlock = mutex_unlock,
    .destroy = mutex_destroy,
};
