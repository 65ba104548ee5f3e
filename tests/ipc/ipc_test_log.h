// What the library logged during one test: the logger writes, at trace level,
// into a temporary folder removed when the test process ends.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "core/logger.h"

class LogTail {
public:
    // Starts the process's logger on first use; remembers where this test begins.
    LogTail() : start_(read_all().size()) {}
    std::string text() const { return read_all().substr(start_); }
    bool contains(const std::string& message) const {
        return text().find(message) != std::string::npos;
    }

private:
    struct Folder {
        std::filesystem::path path;
        Folder() {
            char pattern[] = "/tmp/sylv-ipc-XXXXXX";
            if (mkdtemp(pattern) != nullptr) {
                path = pattern;
                Logger.init((path.string() + "/").c_str(), "ipc", LOG_TRACE);
            }
        }
        ~Folder() {
            Logger.close();
            if (!path.empty()) {
                std::filesystem::remove_all(path);
            }
        }
    };
    static std::string read_all() {
        static Folder folder;
        std::stringstream all;
        if (folder.path.empty()) {
            return all.str();
        }
        for (const auto& entry : std::filesystem::directory_iterator(folder.path)) {
            all << std::ifstream(entry.path()).rdbuf();
        }
        return all.str();
    }
    size_t start_;
};
