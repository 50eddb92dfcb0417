/* The checks of the doctor, a file for each area: every one adds what it finds. */
#pragma once

#include "ctl/doctor/facts.h"
#include "ctl/doctor/finding.h"

#include <sys/stat.h>

#include <string>

namespace ctl {

void check_corosync(const Facts &facts, Findings &findings);
void check_bus(const Facts &facts, Findings &findings);
void check_daemon(const Facts &facts, Findings &findings);
void check_unit(const Facts &facts, Findings &findings);
void check_keeper(const Facts &facts, Findings &findings);
void check_settings(const Facts &facts, Findings &findings);
void check_steps(const Facts &facts, Findings &findings);
void check_devices(const Facts &facts, Findings &findings);

/* What several of them say: */

inline constexpr const char *ask_as_root = "sudo duskvalectl doctor";

/* Adds a warning when somebody other than root can change what is at `path`, which is `what`: by
   its owner, or by its mode. False when so. */
bool only_root_changes(const std::string &path, const char *what, const struct stat &status,
                       Findings &findings);

/* The directory `path`: what is `missing` without it, and how bad a file system with `flag`, of
   statvfs(3), would be. False when there is none. */
bool check_directory(const std::string &path, const char *missing, unsigned long flag, Level level,
                     const char *fault, Findings &findings);

/* `path` as a word for a shell's command line, safe for a terminal. */
std::string shell_word(const std::string &path);

} // namespace ctl
