// Where the add command's API key comes from when -k is absent: a file
// named by --api-key-file ("-" for standard input), else the environment
// variable SYLVANE_API_KEY. Keys kept off the command line do not show in
// /proc/PID/cmdline or ps.
#pragma once

#include <cstddef>

constexpr const char* API_KEY_VARIABLE = "SYLVANE_API_KEY";
// getopt value of --api-key-file, outside the option letters.
constexpr int OPTION_API_KEY_FILE = 1000;

// Results of ApiKey.read_file.
constexpr int API_KEY_UNREADABLE = -1;  // open or read failed; errno says why
constexpr int API_KEY_TOO_OPEN = -2;    // group or others have access to the file

struct ApiKeyModule {
    // First line of `path` ("-": standard input) into `key` (`size` bytes,
    // always NUL-terminated; a longer line is cut, which the key length check
    // then refuses). The newline and a CR before it are dropped. A file whose
    // mode grants group or others any access is refused before it is read,
    // with its mode in *mode; standard input is not checked.
    // 0, API_KEY_UNREADABLE or API_KEY_TOO_OPEN.
    int (*read_file)(const char* path, char* key, size_t size, unsigned* mode);
    // The key for an add without -k: from `path` when not null, else from
    // SYLVANE_API_KEY when set and not empty, else null. A file that cannot
    // be used ends the run as a bad argument (status 1). The text returned
    // lives until the process ends.
    const char* (*resolve)(const char* path /* or null */);
};

extern const ApiKeyModule ApiKey;
