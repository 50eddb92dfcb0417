/* The daemon's settings files, as an operator sees them. */
#pragma once

#include "base/paths.h"
#include "support/file.h"

#include <optional>

inline void write_file(const char *path, const std::optional<std::string> &content) {
    std::filesystem::remove_all(path);
    if (content) {
        std::ofstream(path) << *content;
    }
}

/* The directory is there, and empty. */
inline void clear_settings() {
    std::filesystem::remove_all("/etc/duskvale");
    std::filesystem::create_directory("/etc/duskvale");
}
