/* Files as texts. */
#pragma once

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

/* "absent" where there is none. */
inline std::string file_text(const std::filesystem::path &path) {
    const std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf();
    return file.is_open() ? text.str() : "absent";
}
