#include "core/logger.h"

#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "core/file.h"
#include "core/logger_clock.h"
#include "core/utf8.h"

namespace {

constexpr size_t PATH_CAPACITY = 4096;
constexpr size_t STAMP_SIZE = 512;
constexpr size_t LINE_SIZE = 1024;
constexpr int FLUSH_BELOW_LEVEL = LOG_INFO;
// A message is formatted once, at most this long, for both sinks.
constexpr size_t MESSAGE_SIZE = 4096;
constexpr char CUT_MARK[] = " [...]";
constexpr char REDACTED[] = "[redacted]";
// A redacted message: a secret cut at the message's end still gets its mark.
constexpr size_t REDACTED_SIZE = MESSAGE_SIZE + sizeof REDACTED;
// Room for a message whose every byte is escaped as "\xNN", its head and
// the cut mark.
constexpr size_t TRACE_LINE_SIZE = 4 * REDACTED_SIZE + 128;
constexpr size_t SECRET_CAPACITY = 8;

struct LoggerRecord {
    char* path;  // owned, PATH_CAPACITY + 1 bytes
    FILE* file;  // owned
    uint8_t threshold;
};

// Null until `init`: the file sink.
LoggerRecord* g_logger = nullptr;
// Threshold of the standard error sink; LOG_OFF while it is closed.
uint8_t g_stderr_threshold = LOG_OFF;
// The lowest threshold of the open sinks, LOG_OFF while none is open (the
// tool's normal state): every call below it stops at this one compare.
uint8_t g_floor = LOG_OFF;

struct Secret {
    char* text;  // owned copy, wiped before it is freed
    size_t length;
};
Secret g_secrets[SECRET_CAPACITY];
size_t g_secret_count = 0;

void update_floor() {
    const uint8_t file = g_logger == nullptr ? uint8_t{LOG_OFF} : g_logger->threshold;
    g_floor = std::min(file, g_stderr_threshold);
}

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
int32_t open_file_sink(const char* folder, const char* name, uint8_t level) {
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

// The length of the longest secret that starts at `text` (`length` bytes
// left), or 0. In a cut text a secret's beginning that runs to the end
// counts too: the rest of it was cut off.
size_t secret_at(const char* text, size_t length, bool cut) {
    size_t longest = 0;
    for (size_t i = 0; i < g_secret_count; ++i) {
        const Secret& secret = g_secrets[i];
        const bool whole = length >= secret.length && memcmp(text, secret.text, secret.length) == 0;
        const bool cut_short =
            cut && length < secret.length && memcmp(text, secret.text, length) == 0;
        if (whole || cut_short) {
            longest = std::max(longest, std::min(length, secret.length));
        }
    }
    return longest;
}

// Copies `text` into `out` (`size` bytes, NUL-terminated) with every secret
// replaced. Returns the copy's length; *cut is set when it had to stop short.
size_t redact(const char* text, size_t length, bool* cut, char* out, size_t size) {
    const bool text_cut = *cut;
    size_t written = 0;
    for (size_t i = 0; i < length;) {
        const size_t secret = secret_at(text + i, length - i, text_cut);
        const char* piece = secret != 0 ? REDACTED : text + i;
        const size_t piece_length = secret != 0 ? sizeof REDACTED - 1 : 1;
        if (written + piece_length >= size) {
            *cut = true;
            break;
        }
        memcpy(out + written, piece, piece_length);
        written += piece_length;
        i += secret != 0 ? secret : 1;
    }
    out[written] = '\0';
    return written;
}

// Appends `text` to `line` at *used, escaping what a terminal would act on
// (\n, \r, \t, \xNN for other controls and bytes that are not UTF-8,
// \uNNNN for C1 controls and bidirectional marks). `line` has room for
// four bytes per byte of text.
void append_escaped(char* line, size_t* used, const char* text, size_t length) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(text);
    for (size_t i = 0; i < length;) {
        uint32_t code_point = 0;
        const size_t sequence = utf8_sequence(bytes + i, length - i, &code_point);
        char* out = line + *used;
        if (sequence != 0 && !utf8_is_control(code_point)) {
            memcpy(out, bytes + i, sequence);
            *used += sequence;
        } else if (sequence == 1 &&
                   (code_point == '\n' || code_point == '\r' || code_point == '\t')) {
            out[0] = '\\';
            out[1] = code_point == '\n' ? 'n' : code_point == '\r' ? 'r' : 't';
            *used += 2;
        } else if (sequence > 1) {
            *used += static_cast<size_t>(snprintf(out, 7, "\\u%04X", code_point));
        } else {
            *used += static_cast<size_t>(snprintf(out, 5, "\\x%02X", bytes[i]));
        }
        i += sequence != 0 ? sequence : 1;
    }
}

// Writes all of `bytes` to standard error, through interruptions and short
// writes; a failure is dropped.
void write_whole(const char* bytes, size_t length) {
    while (length > 0) {
        const ssize_t written = write(STDERR_FILENO, bytes, length);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            return;
        }
        bytes += written;
        length -= static_cast<size_t>(written);
    }
}

// The file's line: stamp, tag and message, cut to LINE_SIZE.
void write_file_line(const char* stamp, const char* tag, const char* message, size_t length) {
    char line[LINE_SIZE];
    const int head = snprintf(line, sizeof line, "%s %s ", stamp, tag);
    size_t used = std::min<size_t>(std::max(head, 0), sizeof line - 1);
    const size_t body = std::min(length, sizeof line - 1 - used);
    memcpy(line + used, message, body);
    used += body;
    File.write_line(g_logger->file, line, used);
    if (g_logger->threshold < FLUSH_BELOW_LEVEL) {
        File.flush(g_logger->file);
    }
}

// The trace's line: stamp, tag, escaped message, the cut mark when the
// message was cut, and the line end, in one write.
void write_trace_line(const char* stamp, const char* tag, const char* message, size_t length,
                      bool cut) {
    char line[TRACE_LINE_SIZE];
    const int head = snprintf(line, sizeof line, "%s %s ", stamp, tag);
    size_t used = std::min<size_t>(std::max(head, 0), 64);
    append_escaped(line, &used, message, length);
    if (cut) {
        memcpy(line + used, CUT_MARK, sizeof CUT_MARK - 1);
        used += sizeof CUT_MARK - 1;
    }
    line[used++] = '\n';
    write_whole(line, used);
}

// Formats the message once, hides the secrets, and hands it to each sink
// whose threshold it reaches. errno is kept for the caller, which may be
// about to read it. Out of line: its buffers' stack set-up is paid only by
// calls that write.
SYLV_PRINTF(2, 0)
__attribute__((noinline)) void write_line(uint8_t level, const char* format, va_list arguments) {
    const int saved_errno = errno;
    char formatted[MESSAGE_SIZE];
    const int body = vsnprintf(formatted, sizeof formatted, format, arguments);
    size_t length = std::min<size_t>(std::max(body, 0), sizeof formatted - 1);
    bool cut = body >= static_cast<int>(sizeof formatted);
    char redacted[REDACTED_SIZE];
    const char* message = formatted;
    if (g_secret_count > 0) {
        length = redact(formatted, length, &cut, redacted, sizeof redacted);
        message = redacted;
    }
    const char* tag = level_tag(level);
    struct timeval now {};
    gettimeofday(&now, nullptr);
    char stamp[STAMP_SIZE];
    if (format_log_stamp(now, stamp, sizeof stamp) == 0) {
        stamp[0] = '\0';
    }
    if (g_logger != nullptr && level >= g_logger->threshold) {
        write_file_line(stamp, tag, message, length);
    }
    if (level >= g_stderr_threshold) {
        write_trace_line(stamp, tag, message, length, cut);
    }
    errno = saved_errno;
}

// Shared by every level: one compare while no sink takes the level.
SYLV_PRINTF(2, 0) void log_write(uint8_t level, const char* format, va_list arguments) {
    if (level >= g_floor) {
        write_line(level, format, arguments);
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

int32_t logger_init(const char* folder, const char* name, uint8_t level) {
    const int32_t status = open_file_sink(folder, name, level);
    update_floor();
    return status;
}

// Closes the file and frees the logger; a later `init` starts afresh.
void logger_close() {
    if (g_logger != nullptr) {
        drop_logger();
    }
    update_floor();
}

int32_t set_stderr_level(uint8_t level) {
    if (level > LOG_OFF) {
        return LOGGER_ERR_ARGUMENT;
    }
    g_stderr_threshold = level;
    update_floor();
    return LOGGER_OK;
}

// The copy is the logger's; forget_secrets wipes it.
int32_t add_secret(const char* secret) {
    if (secret == nullptr || secret[0] == '\0' || g_secret_count == SECRET_CAPACITY) {
        return LOGGER_ERR_ARGUMENT;
    }
    const size_t length = strlen(secret);
    char* copy = static_cast<char*>(malloc(length + 1));
    if (copy == nullptr) {
        return LOGGER_ERR_MEMORY;
    }
    memcpy(copy, secret, length + 1);
    g_secrets[g_secret_count++] = Secret{copy, length};
    return LOGGER_OK;
}

void forget_secrets() {
    for (size_t i = 0; i < g_secret_count; ++i) {
        explicit_bzero(g_secrets[i].text, g_secrets[i].length);
        free(g_secrets[i].text);
        g_secrets[i] = Secret{};
    }
    g_secret_count = 0;
}

// Whether a line at `level` passes the threshold of an open sink.
bool enabled(uint8_t level) {
    return level >= g_floor;
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
    .set_stderr_level = set_stderr_level,
    .add_secret = add_secret,
    .forget_secrets = forget_secrets,
    .enabled = enabled,
};
