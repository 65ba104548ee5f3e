// API keys read from a file, standard input or the environment.

#include "cli/preflight/api_key.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "core/logger.h"

namespace {

// Reads until a newline, the end of the input or a full buffer, then cuts
// at the newline and drops a CR before it. 0 or API_KEY_UNREADABLE.
int read_first_line(int fd, char* key, size_t size) {
    size_t used = 0;
    while (used + 1 < size && memchr(key, '\n', used) == nullptr) {
        ssize_t got = read(fd, key + used, size - 1 - used);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            Logger.error("Could not read API key: %s", strerror(errno));
            return API_KEY_UNREADABLE;
        }
        if (got == 0) {
            break;
        }
        used += static_cast<size_t>(got);
    }
    key[used] = '\0';
    key[strcspn(key, "\n")] = '\0';
    size_t length = strlen(key);
    if (length > 0 && key[length - 1] == '\r') {
        key[length - 1] = '\0';
    }
    return 0;
}

// The mode is read from the open descriptor, so the file checked is the
// file read. The file is opened without blocking, so that a FIFO without a
// writer is refused rather than waited for.
int read_file(const char* path, char* key, size_t size, unsigned* mode) {
    if (path == nullptr || key == nullptr || size == 0) {
        errno = EINVAL;
        return API_KEY_UNREADABLE;
    }
    key[0] = '\0';
    if (strcmp(path, "-") == 0) {
        return read_first_line(STDIN_FILENO, key, size);
    }
    int fd = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (fd < 0) {
        Logger.error("Could not open API key file %s: %s", path, strerror(errno));
        return API_KEY_UNREADABLE;
    }
    struct stat status {};
    int result = API_KEY_UNREADABLE;
    if (fstat(fd, &status) != 0) {
        Logger.error("Could not stat API key file %s: %s", path, strerror(errno));
    } else if (!S_ISREG(status.st_mode)) {
        Logger.error("Unable to use API key file %s: not a regular file", path);
        result = API_KEY_NOT_A_FILE;
    } else if ((status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
        if (mode != nullptr) {
            *mode = status.st_mode & 07777;
        }
        Logger.error("Unable to use API key file %s: mode %04o lets others in", path,
                     static_cast<unsigned>(status.st_mode & 07777));
        result = API_KEY_TOO_OPEN;
    } else {
        result = read_first_line(fd, key, size);
    }
    int saved_errno = errno;
    close(fd);
    errno = saved_errno;
    return result;
}

}  // namespace

const ApiKeyModule ApiKey = {
    .read_file = read_file,
};
