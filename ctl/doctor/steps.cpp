#include "ctl/doctor/checks.h"

#include "base/paths.h"

#include <glib.h>
#include <sys/statvfs.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

namespace ctl {

namespace {

constexpr mode_t any_execute = S_IXUSR | S_IXGRP | S_IXOTH;

/* The program that a first line names and that is not there; "" when there is nothing to say. */
std::string missing_interpreter(const std::string &line) {
    std::istringstream words(line.substr(2));
    std::string interpreter;
    std::string argument;
    words >> interpreter >> argument;
    /* "#!/usr/bin/env python3" */
    const bool by_env = interpreter.ends_with("/env") && !argument.empty() &&
                        !argument.starts_with('-') && argument.find('=') == argument.npos;
    for (const std::string &name : {interpreter, by_env ? argument : interpreter}) {
        g_autofree char *found = g_find_program_in_path(name.c_str());
        if (found == nullptr) {
            return name;
        }
    }
    return {};
}

/* True when the daemon can run it, and nobody but root decides what that is. */
bool check_step(const std::string &path, const struct stat &status, Findings &findings) {
    const std::string name = file_name(path);
    if (!S_ISREG(status.st_mode)) {
        findings.warning(name + " is named like a step, but is not a file",
                         "rename it, or move it to another directory: " + shell_word(path));
        return false;
    }
    bool good = only_root_changes(path, "the step", status, findings);
    const auto fault = [&](Level level, const std::string &text, const std::string &next) {
        findings.add(level, name + text, next);
        good = false;
    };
    if ((status.st_mode & any_execute) == 0) {
        fault(Level::critical, " cannot be run: it is not executable",
              "chmod 755 " + shell_word(path));
    }
    errno = 0;
    std::ifstream file(path);
    std::string line;
    if (!std::getline(file, line) && errno != 0) {
        fault(Level::unknown, std::string(" cannot be read: ") + std::strerror(errno), ask_as_root);
    } else if (line.starts_with("\177ELF")) {
        return good;
    } else if (!line.starts_with("#!")) {
        fault(Level::warning, " does not name its interpreter in its first line",
              "begin it with #!/bin/sh, or with its own interpreter");
    } else if (line.ends_with('\r')) {
        fault(Level::critical, " cannot be run: it has the line ends of DOS",
              "sed -i 's/\\r$//' " + shell_word(path));
    } else if (const std::string missing = missing_interpreter(line); !missing.empty()) {
        fault(Level::critical, " cannot be run: its interpreter is missing: " + printable(missing),
              "install it, or correct the first line of " + shell_word(path));
    }
    return good;
}

/* For what is not named like a step: does it look as if it was meant to run? */
void check_bystander(const std::string &path, const struct stat &status, Findings &findings) {
    const std::string name = file_name(path);
    const bool looks_like_step =
        (status.st_mode & any_execute) != 0 || name.find(".run") != std::string::npos;
    if (S_ISREG(status.st_mode) && looks_like_step) {
        const char *why =
            name.starts_with('.') ? "its name begins with a dot" : "its name does not end in .run";
        findings.warning(name + " is never run: " + why,
                         "rename it, or move it to another directory: " + shell_word(path));
    }
}

} // namespace

void check_steps(const Facts &, Findings &findings) {
    if (!check_directory(DUSKVALE_RUN_DIR, "a master starts nothing", ST_NOEXEC, Level::critical,
                         " is on a file system on which nothing can be run", findings)) {
        return;
    }
    g_autoptr(GError) error = nullptr;
    g_autoptr(GDir) directory = g_dir_open(DUSKVALE_RUN_DIR, 0, &error);
    if (directory == nullptr) {
        findings.unknown(printable(error->message), ask_as_root);
        return;
    }
    std::set<std::string> names;
    while (const char *name = g_dir_read_name(directory)) {
        names.insert(name);
    }
    std::size_t steps = 0;
    std::size_t good = 0;
    for (const std::string &name : names) {
        const std::string path = DUSKVALE_RUN_DIR "/" + name;
        const bool step = name.ends_with(".run") && !name.starts_with('.');
        struct stat status = {};
        steps += step ? 1U : 0U;
        if (stat(path.c_str(), &status) != 0) {
            const int fault = errno;
            findings.add(fault == EACCES ? Level::unknown
                         : step          ? Level::critical
                                         : Level::note,
                         printable(name) + " is a broken link: " + std::strerror(fault),
                         "ls -l " + shell_word(path));
        } else if (step) {
            good += check_step(path, status, findings) ? 1U : 0U;
        } else {
            check_bystander(path, status, findings);
        }
    }
    if (steps == 0) {
        findings.warning("there are no steps: a master starts nothing",
                         "put some into " DUSKVALE_RUN_DIR "; man duskvale-run-steps");
    } else if (good == steps) {
        findings.ok(counted(steps, "step") + ", and nothing wrong with them");
    }
}

} // namespace ctl
