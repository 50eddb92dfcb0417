/* Files, as the doctor looks at them. */
#pragma once

#include "ctl/doctor/finding.h"

#include <sys/stat.h>

#include <cstddef>
#include <string>

namespace ctl {

struct FileText {
    int fault = 0; /* errno when it could not be read */
    std::string text;
};

/* The first `most` bytes of a file. */
FileText read_start(const std::string &path, std::size_t most);

/* Adds a warning when somebody other than root can change what stands at `path`, which is `what`:
   by its owner, or by its mode. False when so. */
bool only_root_changes(const std::string &path, const char *what, const struct stat &status,
                       Findings &findings);

/* `path` as a word for a shell's command line, safe for a terminal. */
std::string shell_word(const std::string &path);

} // namespace ctl
