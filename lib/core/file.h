// File: the few stdio operations the logger writes through.
//
// Results are 0 for success and negative for failure unless an operation says
// otherwise. Nothing here allocates beyond what stdio does for a stream.
#pragma once

#include <cstddef>
#include <cstdio>

struct FileModule {
    // Opens `path` with the stdio `mode`. Returns the stream, or null after
    // logging "Error opening file %s -- %s" at error level.
    FILE* (*open)(const char* path, const char* mode);
    // Writes `count` bytes as one item, then one "\n". -1 for a null stream or
    // when either write fails; 0 otherwise.
    int (*write_line)(FILE* stream, const void* bytes, size_t count);
    // -1 for a null stream, otherwise the result of fflush.
    int (*flush)(FILE* stream);
    // -1 for a null stream, otherwise closes it and returns 0.
    int (*close)(FILE* stream);
    // -1 for a null path; -2 unless the path ends with "/"; then 1 when it
    // exists and is a folder, 0 otherwise.
    int (*is_directory)(const char* path);
    // 1 and nothing done when the path exists; otherwise mkdir with 0775:
    // 0 on success, 1 after printing "mkdir error: <reason>" on stderr.
    int (*create_folder)(const char* path);
};

extern const FileModule File;
