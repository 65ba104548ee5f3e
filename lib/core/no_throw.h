// The boundary between code that may throw (the standard library, a
// caller's callback) and the library's C-style operations, which never do.
#pragma once

#include <new>

#include "core/logger.h"

// Runs `body` and returns its result; an exception becomes `failure`,
// logged under `operation`.
template <typename Result, typename Body>
Result without_throwing(const char* operation, Result failure, Body&& body) noexcept {
    try {
        return body();
    } catch (const std::bad_alloc&) {
        Logger.error("%s: Unable to allocate memory.", operation);
    } catch (...) {
        Logger.error("%s: Unexpected failure.", operation);
    }
    return failure;
}
