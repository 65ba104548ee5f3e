// Time stamp of a log line, split out of the logger so that its rounding can
// be checked against fixed clock readings.
#pragma once

#include <sys/time.h>

#include <cstddef>

// Writes "Mon_dd_HH_MM_SS.mmm" (local time) for `now` into `out`, rounding the
// microseconds to the nearest millisecond, half to even; 999.5 ms and above
// carry into the next second. Returns the text's length, or 0 when it does
// not fit in `size` bytes (terminator included) or the time cannot be shown.
size_t format_log_stamp(const struct timeval& now, char* out, size_t size);
