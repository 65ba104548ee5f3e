#include "core/logger.h"

#include <sys/time.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "core/file.h"
#include "core/logger_clock.h"

namespace {

constexpr size_t PATH_CAPACITY = 4096;
constexpr size_t STAMP_SIZE = 512;
constexpr size_t LINE_SIZE = 1024;
constexpr int FLUSH_BELOW_LEVEL = LOG_INFO;

struct LoggerRecord {
    char* path;  // owned, PATH_CAPACITY + 1 bytes
    FILE* file;  // owned
    uint8_t threshold;
};

// Null until `init`: the tool never initialises, so every call stops at this test.
LoggerRecord* g_logger = nullptr;

const char* level_tag(uint8_t level) {
    switch (level) {
        case LOG_TRACE:
            return "[trace]";
        case LOG_DEBUG:
            return "[debug]";
        case LOG_WARN:
            return "[warn]";
        case LOG_ERROR:
            return "[error]";
        case LOG_FATAL:
            return "[fatal]";
        default:
            return "[info]";
    }
}

// "<folder><Mon_dd_HH_MM_SS>_<name>.log" into `path` (PATH_CAPACITY + 1 bytes).
// -2 when no time stamp can be made, -3 when the path is over capacity.
int build_path(char* path, const char* folder, const char* name) {
    char stamp[64];
    const time_t now = time(nullptr);
    struct tm local {};
    const size_t stamp_length = localtime_r(&now, &local) == nullptr
                                    ? 0
                                    : strftime(stamp, sizeof stamp, "%b_%d_%H_%M_%S", &local);
    if (stamp_length == 0) {
        return -2;
    }
    if (PATH_CAPACITY < strlen(folder) + strlen(name) + stamp_length + 5) {
        return -3;
    }
    snprintf(path, PATH_CAPACITY + 1, "%s%s_%s.log", folder, stamp, name);
    return 0;
}

// Releases the record and what it holds; the logger is uninitialised after.
void drop_logger() {
    File.close(g_logger->file);
    free(g_logger->path);
    free(g_logger);
    g_logger = nullptr;
}

// Opens a new log file in `folder` (created when missing). See logger.h for
// the codes. A folder rejected by the folder test leaves an initialised
// logger without a file: its lines go nowhere.
int32_t logger_init(const char* folder, const char* name, uint8_t level) {
    if (g_logger != nullptr) {
        return LOGGER_OK;
    }
    if (folder == nullptr || name == nullptr) {
        return LOGGER_ERR_ARGUMENT;
    }
    g_logger = static_cast<LoggerRecord*>(calloc(1, sizeof(LoggerRecord)));
    if (g_logger == nullptr) {
        return LOGGER_ERR_ARGUMENT;
    }
    const int folder_state = File.is_directory(folder);
    if (folder_state < 0) {
        return LOGGER_ERR_ARGUMENT;
    }
    if (folder_state == 0) {
        printf("Folder %s does not exist. let's create it.", folder);
        File.create_folder(folder);
    }
    int32_t status = LOGGER_OK;
    // One spare byte keeps the terminator of a path of exactly PATH_CAPACITY.
    g_logger->path = static_cast<char*>(malloc(PATH_CAPACITY + 1));
    if (g_logger->path == nullptr) {
        status = LOGGER_ERR_MEMORY;
    } else if (build_path(g_logger->path, folder, name) != 0) {
        status = LOGGER_ERR_PATH;
    } else if ((g_logger->file = File.open(g_logger->path, "ae")) == nullptr) {
        status =
            LOGGER_ERR_OPEN;  // "e": children started by the host program do not inherit the log
    }
    if (status != LOGGER_OK) {
        drop_logger();
        return status;
    }
    g_logger->threshold = level;
    return LOGGER_OK;
}

// Shared by every level: stamp, tag and message as one line, cut to LINE_SIZE.
SYLV_PRINTF(2, 0) void log_write(uint8_t level, const char* format, va_list arguments) {
    if (g_logger == nullptr || level < g_logger->threshold) {
        return;
    }
    const char* tag = level_tag(level);
    struct timeval now {};
    gettimeofday(&now, nullptr);
    char stamp[STAMP_SIZE];
    if (format_log_stamp(now, stamp, sizeof stamp) == 0) {
        stamp[0] = '\0';
    }
    char line[LINE_SIZE];
    const int head = snprintf(line, sizeof line, "%s %s ", stamp, tag);
    size_t length = std::min<size_t>(std::max(head, 0), sizeof line - 1);
    const int body = vsnprintf(line + length, sizeof line - length, format, arguments);
    length += std::min<size_t>(std::max(body, 0), sizeof line - 1 - length);
    File.write_line(g_logger->file, line, length);
    if (g_logger->threshold < FLUSH_BELOW_LEVEL) {
        File.flush(g_logger->file);
    }
}

template <LogLevel level>
SYLV_PRINTF(1, 2)
void log_at(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    log_write(level, format, arguments);
    va_end(arguments);
}

// Closes the file and frees the logger; a later `init` starts afresh.
void logger_close() {
    if (g_logger != nullptr) {
        drop_logger();
    }
}

}  // namespace

size_t format_log_stamp(const struct timeval& now, char* out, size_t size) {
    time_t seconds = now.tv_sec;
    long milliseconds = lrint(static_cast<double>(now.tv_usec) / 1000.0);
    if (milliseconds > 999) {
        milliseconds -= 1000;
        seconds += 1;
    }
    struct tm local {};
    if (localtime_r(&seconds, &local) == nullptr) {
        return 0;
    }
    const size_t length = strftime(out, size, "%b_%d_%H_%M_%S.", &local);
    if (length == 0) {
        return 0;
    }
    const int digits = snprintf(out + length, size - length, "%03ld", milliseconds);
    if (digits < 0 || static_cast<size_t>(digits) >= size - length) {
        return 0;
    }
    return length + static_cast<size_t>(digits);
}

const LoggerModule Logger = {
    .init = logger_init,
    .trace = log_at<LOG_TRACE>,
    .debug = log_at<LOG_DEBUG>,
    .info = log_at<LOG_INFO>,
    .warn = log_at<LOG_WARN>,
    .error = log_at<LOG_ERROR>,
    .unused = empty_slot,
    .fatal = log_at<LOG_FATAL>,
    .close = logger_close,
};
