#include "core/file.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "core/logger.h"

namespace {

// Opens a stdio stream that the caller closes with `close`.
FILE* file_open(const char* path, const char* mode) {
    FILE* stream = fopen(path, mode);
    if (stream == nullptr) {
        Logger.error("Error opening file %s -- %s", path, strerror(errno));
    }
    return stream;
}

// The bytes as one item, then the line end.
int file_write_line(FILE* stream, const void* bytes, size_t count) {
    if (stream == nullptr) {
        return FILE_ERR_ARGUMENT;
    }
    // fwrite of zero bytes writes no item; an empty line is still a line.
    if (count != 0 && fwrite(bytes, count, 1, stream) != 1) {
        return FILE_ERR_ARGUMENT;
    }
    return fwrite("\n", 1, 1, stream) == 1 ? FILE_OK : FILE_ERR_ARGUMENT;
}

int file_flush(FILE* stream) {
    return stream == nullptr ? FILE_ERR_ARGUMENT : fflush(stream);
}

int file_close(FILE* stream) {
    if (stream == nullptr) {
        return FILE_ERR_ARGUMENT;
    }
    fclose(stream);
    return FILE_OK;
}

// Only folder strings ending with "/" are accepted, so the logger can append
// a file name without adding a separator.
int file_is_directory(const char* path) {
    if (path == nullptr) {
        return FILE_ERR_ARGUMENT;
    }
    const char* last_slash = strrchr(path, '/');
    if (last_slash == nullptr || last_slash[1] != '\0') {
        return FILE_ERR_NOT_FOLDER;
    }
    struct stat info {};
    return stat(path, &info) == 0 && S_ISDIR(info.st_mode) ? 1 : 0;
}

// Creates a missing folder with mode 0775; anything already there is left alone.
int file_create_folder(const char* path) {
    struct stat info {};
    if (stat(path, &info) == 0) {
        return 1;
    }
    if (mkdir(path, 0775) != 0) {
        perror("mkdir error");
        return 1;
    }
    return FILE_OK;
}

}  // namespace

const FileModule File = {
    .open = file_open,
    .write_line = file_write_line,
    .flush = file_flush,
    .close = file_close,
    .is_directory = file_is_directory,
    .create_folder = file_create_folder,
};
