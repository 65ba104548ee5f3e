// File: the few stdio operations the logger writes through.
//
// Results: FILE_OK (0); FILE_ERR_ARGUMENT (-1) a missing stream or path, or
// a failed write; FILE_ERR_NOT_FOLDER (-2) a folder path not ending with "/".
// An operation may also answer 1, as it says. Nothing here allocates beyond
// what stdio does for a stream.
#pragma once

#include <cstddef>
#include <cstdio>

enum FileResult : int {
    FILE_OK = 0,
    FILE_ERR_ARGUMENT = -1,
    FILE_ERR_NOT_FOLDER = -2,
};

struct FileModule {
    // Opens `path` with the stdio `mode`. Returns the stream, or null after
    // logging "Error opening file %s -- %s" at error level.
    FILE* (*open)(const char* path, const char* mode);
    // Writes `count` bytes as one item, then one "\n". FILE_ERR_ARGUMENT for a
    // null stream or when either write fails; FILE_OK otherwise.
    int (*write_line)(FILE* stream, const void* bytes, size_t count);
    // FILE_ERR_ARGUMENT for a null stream, otherwise the result of fflush.
    int (*flush)(FILE* stream);
    // FILE_ERR_ARGUMENT for a null stream, otherwise closes it: FILE_OK.
    int (*close)(FILE* stream);
    // FILE_ERR_ARGUMENT for a null path; FILE_ERR_NOT_FOLDER unless the path
    // ends with "/"; then 1 when it exists and is a folder, 0 otherwise.
    int (*is_directory)(const char* path);
    // 1 and nothing done when the path exists; otherwise mkdir with 0775:
    // FILE_OK on success, 1 after printing "mkdir error: <reason>" on stderr.
    int (*create_folder)(const char* path);
};

extern const FileModule File;
