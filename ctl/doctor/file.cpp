#include "ctl/doctor/file.h"

#include "ctl/print/text.h"

#include <glib.h>

#include <cerrno>
#include <cstdio>
#include <memory>

namespace ctl {

namespace {

struct CloseFile {
    void operator()(std::FILE *file) const { std::fclose(file); }
};

} // namespace

FileText read_start(const std::string &path, std::size_t most) {
    FileText result;
    const std::unique_ptr<std::FILE, CloseFile> file(std::fopen(path.c_str(), "re"));
    if (!file) {
        result.fault = errno;
        return result;
    }
    result.text.resize(most);
    errno = 0;
    result.text.resize(std::fread(result.text.data(), 1, most, file.get()));
    result.fault = std::ferror(file.get()) != 0 ? errno : 0;
    return result;
}

bool only_root_changes(const std::string &path, const char *what, const struct stat &status,
                       Findings &findings) {
    const std::string name = std::string(what) + " " + printable(path);
    bool safe = true;
    if (status.st_uid != 0) {
        findings.add(Level::warning,
                     name + " belongs to user " + std::to_string(status.st_uid) + ", not to root",
                     "chown root: " + shell_word(path));
        safe = false;
    }
    const bool by_group = (status.st_mode & S_IWGRP) != 0 && status.st_gid != 0;
    if ((status.st_mode & S_IWOTH) != 0 || by_group) {
        findings.add(Level::warning, name + " can be changed by others than root",
                     "chmod go-w " + shell_word(path));
        safe = false;
    }
    return safe;
}

std::string shell_word(const std::string &path) {
    static const std::string harmless = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                        "0123456789/._-+,:@%";
    if (path.find_first_not_of(harmless) == std::string::npos) {
        return path;
    }
    g_autofree char *quoted = g_shell_quote(path.c_str());
    return printable(quoted);
}

} // namespace ctl
