#include "ctl/doctor/checks.h"
#include "ctl/doctor/file.h"
#include "ctl/print/text.h"

#include "base/paths.h"

#include <glib.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <sstream>

namespace ctl {

namespace {

constexpr mode_t any_execute = S_IXUSR | S_IXGRP | S_IXOTH;
/* As much of a first line as the kernel heeds. */
constexpr std::size_t first_line_size = 256;

bool can_be_run(const std::string &program) {
    struct stat status = {};
    return stat(program.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
           (status.st_mode & any_execute) != 0;
}

/* "#!/usr/bin/env python3": the program it would look for; empty when that is not to be said. */
std::string program_of_env(const std::string &interpreter, const std::string &argument) {
    const bool plain = argument.find_first_of(" =") == std::string::npos;
    return interpreter.ends_with("/env") && plain && !argument.starts_with('-') ? argument : "";
}

/* Adds what is wrong with the interpreter of a step; true when nothing is. */
bool check_interpreter(const std::string &path, const std::string &start, Findings &findings) {
    const std::string name = file_name(path);
    if (!start.starts_with("#!")) {
        if (start.starts_with("\177ELF")) {
            return true;
        }
        findings.add(Level::warning, name + " does not name its interpreter in its first line",
                     "let it begin with #!/bin/sh, or what it is written for");
        return false;
    }
    const std::string line = start.substr(2, start.find('\n') - 2);
    if (line.ends_with('\r')) {
        findings.add(Level::critical, name + " has line ends of another system: it cannot be run",
                     "sed -i 's/\\r$//' " + shell_word(path));
        return false;
    }
    std::istringstream words(line);
    std::string interpreter;
    std::string argument;
    words >> interpreter >> std::ws;
    std::getline(words, argument);
    std::string missing = can_be_run(interpreter) ? "" : interpreter;
    const std::string program = program_of_env(interpreter, argument);
    if (missing.empty() && !program.empty()) {
        g_autofree char *found = g_find_program_in_path(program.c_str());
        missing = found != nullptr ? "" : program;
    }
    if (!missing.empty()) {
        findings.add(Level::critical,
                     name + " cannot be run: its interpreter is not there: " + printable(missing),
                     "install it, or mend the first line of " + shell_word(path));
    }
    return missing.empty();
}

/* True when the daemon can run it, and nobody but root decides what that is. */
bool check_step(const std::string &path, const struct stat &status, Findings &findings) {
    const std::string name = file_name(path);
    if (!S_ISREG(status.st_mode)) {
        findings.add(Level::warning, name + " is named like a step, but is no file",
                     "mv " + shell_word(path) + " to elsewhere");
        return false;
    }
    bool good = only_root_changes(path, "the step", status, findings);
    if ((status.st_mode & any_execute) == 0) {
        findings.add(Level::critical, name + " cannot be run: it is not executable",
                     "chmod 755 " + shell_word(path));
        good = false;
    }
    const FileText file = read_start(path, first_line_size);
    if (file.fault != 0) {
        findings.add(Level::unknown, name + " cannot be read: " + std::strerror(file.fault),
                     "sudo duskvalectl doctor");
        return false;
    }
    return check_interpreter(path, file.text, findings) && good;
}

/* For what is not named like a step: does it look as if it was meant to run? */
void check_bystander(const std::string &path, const struct stat &status, Findings &findings) {
    const std::string name = file_name(path);
    const bool looks_like_step =
        (status.st_mode & any_execute) != 0 || name.find(".run") != std::string::npos;
    if (S_ISREG(status.st_mode) && looks_like_step) {
        const char *why =
            name.starts_with('.') ? "its name begins with a dot" : "its name does not end in .run";
        findings.add(Level::warning, name + " is never run: " + why,
                     "rename it, or move it out: " + shell_word(path));
    }
}

bool check_directory(Findings &findings) {
    struct stat status = {};
    if (stat(DUSKVALE_RUN_DIR, &status) != 0 || !S_ISDIR(status.st_mode)) {
        findings.add(Level::warning, DUSKVALE_RUN_DIR " is no directory: a master starts nothing",
                     "install -d -m 755 " DUSKVALE_RUN_DIR);
        return false;
    }
    only_root_changes(DUSKVALE_RUN_DIR, "the directory", status, findings);
    struct statvfs system = {};
    if (statvfs(DUSKVALE_RUN_DIR, &system) == 0 && (system.f_flag & ST_NOEXEC) != 0) {
        findings.add(Level::critical,
                     DUSKVALE_RUN_DIR " is on a file system on which nothing can be run",
                     "findmnt --target " DUSKVALE_RUN_DIR);
    }
    return true;
}

} // namespace

void check_steps(const Facts &, Findings &findings) {
    if (!check_directory(findings)) {
        return;
    }
    g_autoptr(GError) error = nullptr;
    g_autoptr(GDir) directory = g_dir_open(DUSKVALE_RUN_DIR, 0, &error);
    if (directory == nullptr) {
        findings.add(Level::unknown, printable(error->message), "sudo duskvalectl doctor");
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
                         printable(name) + " leads nowhere: " + std::strerror(fault),
                         "ls -l " + shell_word(path));
        } else if (step) {
            good += check_step(path, status, findings) ? 1U : 0U;
        } else {
            check_bystander(path, status, findings);
        }
    }
    if (steps == 0) {
        findings.add(Level::warning, "there are no steps: a master starts nothing",
                     "put some into " DUSKVALE_RUN_DIR "; man duskvale-run-steps");
    } else if (good == steps) {
        findings.add(Level::ok, counted(steps, "step") + ", and nothing wrong with them");
    }
}

} // namespace ctl
