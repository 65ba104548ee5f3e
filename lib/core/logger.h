// Logger: the process-wide diagnostic log.
//
// A line is written only after a successful `init`, and only for calls whose
// level is at or above the threshold. Uninitialised (the tool's normal state),
// a call costs one pointer test: no formatting, no clock read. Each `init`
// opens a new file "<folder><Mon_dd_HH_MM_SS>_<name>.log" in append mode.
// Lines read "Nov_15_13_24_05.042 [error] message". Nothing here throws, and
// a log call never reports a failure to its caller, nor changes errno.
//
// The trace: `set_stderr_level` sends the same lines to standard error as
// well, each written whole with one write(), control characters and text
// that is not UTF-8 escaped (the agent's words reach a terminal). Texts
// registered with `add_secret` never appear in a line of either sink: each
// occurrence reads "[redacted]". With neither sink open a call still costs
// one compare.
#pragma once

#include <cstdarg>
#include <cstdint>

#include "core/module.h"

enum LogLevel : uint8_t {
    LOG_TRACE = 0,
    LOG_DEBUG = 1,
    LOG_INFO = 2,
    LOG_WARN = 3,
    LOG_ERROR = 4,
    LOG_FATAL = 5,
    LOG_OFF = 6,  // as a threshold: no line passes
};

// Results of `init`: LOGGER_OK (0); LOGGER_ERR_ARGUMENT (-1) a missing
// argument, allocation failure or a folder not ending with "/";
// LOGGER_ERR_MEMORY (-2) the path buffer cannot be allocated; LOGGER_ERR_PATH
// (-3) a path longer than 4096 or no time stamp; LOGGER_ERR_OPEN (-4) the
// file cannot be opened.
enum LoggerResult : int32_t {
    LOGGER_OK = 0,
    LOGGER_ERR_ARGUMENT = -1,
    LOGGER_ERR_MEMORY = -2,
    LOGGER_ERR_PATH = -3,
    LOGGER_ERR_OPEN = -4,
};

// The tool never calls init nor close, so its log lines go nowhere.
struct LoggerModule {
    // Starts logging into `folder` (which must end with "/"; created with mode
    // 0775 when missing) with the given threshold. LOGGER_OK, also when
    // already initialised (the first file is kept); LOGGER_ERR_ARGUMENT (the
    // logger is then left initialised with no file, and writes nothing);
    // LOGGER_ERR_MEMORY, LOGGER_ERR_PATH, LOGGER_ERR_OPEN (the logger stays
    // uninitialised).
    int32_t (*init)(const char* folder, const char* name, uint8_t level);
    void (*trace)(const char* format, ...) SYLV_PRINTF(1, 2);
    void (*debug)(const char* format, ...) SYLV_PRINTF(1, 2);
    void (*info)(const char* format, ...) SYLV_PRINTF(1, 2);
    void (*warn)(const char* format, ...) SYLV_PRINTF(1, 2);
    void (*error)(const char* format, ...) SYLV_PRINTF(1, 2);
    EmptySlot unused;
    void (*fatal)(const char* format, ...) SYLV_PRINTF(1, 2);
    // Closes the file and frees the logger; nothing when uninitialised. The
    // trace and the secrets stay.
    void (*close)();
    // Writes the lines at or above `level` to standard error too, whether or
    // not a file is open; LOG_OFF stops that. LOGGER_OK, or
    // LOGGER_ERR_ARGUMENT for a level above LOG_OFF (nothing changes).
    int32_t (*set_stderr_level)(uint8_t level);
    // Keeps a copy of `secret`: from now on every occurrence in a line reads
    // "[redacted]", and so does its beginning at the end of a line cut to
    // the line's size. LOGGER_OK; LOGGER_ERR_ARGUMENT for a null or empty
    // text or when 8 are held already; LOGGER_ERR_MEMORY.
    int32_t (*add_secret)(const char* secret);
    // Wipes and frees the copies of the secrets.
    void (*forget_secrets)();
    // Whether a line at `level` would be written anywhere: arguments that
    // cost work to compute are computed only then.
    bool (*enabled)(uint8_t level);
};

extern const LoggerModule Logger;
