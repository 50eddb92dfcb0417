#include "ctl/doctor/checks.h"

#include <glib.h>
#include <sys/statvfs.h>

namespace ctl {

bool only_root_changes(const std::string &path, const char *what, const struct stat &status,
                       Findings &findings) {
    const std::string name = std::string(what) + " " + printable(path);
    const bool by_group = (status.st_mode & S_IWGRP) != 0 && status.st_gid != 0;
    const bool by_mode = (status.st_mode & S_IWOTH) != 0 || by_group;
    if (status.st_uid != 0) {
        findings.warning(name + " belongs to user " + std::to_string(status.st_uid) +
                             ", not to root",
                         "chown root: " + shell_word(path));
    }
    if (by_mode) {
        findings.warning(name + " can be changed by others than root",
                         "chmod go-w " + shell_word(path));
    }
    return status.st_uid == 0 && !by_mode;
}

bool check_directory(const std::string &path, const char *missing, unsigned long flag, Level level,
                     const char *fault, Findings &findings) {
    struct stat status = {};
    struct statvfs system = {};
    if (stat(path.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
        findings.warning(path + " is not a directory: " + missing, "install -d -m 755 " + path);
        return false;
    }
    if (statvfs(path.c_str(), &system) == 0 && (system.f_flag & flag) != 0) {
        findings.add(level, path + fault, "findmnt --target " + path);
    }
    if (only_root_changes(path, "the directory", status, findings)) {
        findings.ok("only root can write to " + path);
    }
    return true;
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
