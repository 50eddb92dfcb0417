/* The daemon's settings files, as an operator sees them. */
#pragma once

#include "base/paths.h"

#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>

inline void write_file(const char *path, const std::optional<std::string> &content) {
    std::filesystem::remove_all(path);
    if (content) {
        std::ofstream(path) << *content;
    }
}

inline std::string read_file(const char *path) {
    const std::ifstream file(path);
    std::ostringstream content;
    content << file.rdbuf();
    return file.is_open() ? content.str() : "absent";
}

/* The directory is there, and empty. */
inline void clear_settings() {
    std::filesystem::remove_all("/etc/duskvale");
    std::filesystem::create_directory("/etc/duskvale");
}
