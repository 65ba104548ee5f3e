// Reading the add command's API key from a file named by --api-key-file
// ("-" for standard input) when -k is absent; keys kept off the command line
// do not show in /proc/PID/cmdline or ps. Nothing here prints: the add
// command says what went wrong.
#pragma once

#include <cstddef>

constexpr const char* API_KEY_VARIABLE = "SYLVANE_API_KEY";

// Results of ApiKey.read_file.
constexpr int API_KEY_UNREADABLE = -1;  // open or read failed; errno says why
constexpr int API_KEY_TOO_OPEN = -2;    // group or others have access to the file
constexpr int API_KEY_NOT_A_FILE = -3;  // a directory, a device, a FIFO...

struct ApiKeyModule {
    // First line of `path` ("-": standard input) into `key` (`size` bytes,
    // always NUL-terminated; a longer line is cut, which the key length check
    // then refuses). The newline and a CR before it are dropped. A file whose
    // mode grants group or others any access, and anything but a regular
    // file, is refused before it is read, with its mode in *mode; standard
    // input is not checked. 0, API_KEY_UNREADABLE, API_KEY_TOO_OPEN or
    // API_KEY_NOT_A_FILE.
    int (*read_file)(const char* path, char* key, size_t size, unsigned* mode);
};

extern const ApiKeyModule ApiKey;
