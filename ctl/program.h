/* Another program's answer to a question. */
#pragma once

#include <string>
#include <vector>

namespace ctl {

struct ProgramAnswer {
    int status = -1; /* the exit status; -1 when the program could not be started, or was killed */
    bool timed_out = false;
    std::string out;
    std::string err; /* its complaint, or why it could not be started */
};

/* Runs a program that is in the PATH or in a sbin folder, which an ordinary user's PATH leaves out.
   After so many seconds it is ended, and killed 2 seconds later. */
ProgramAnswer ask_program(std::vector<std::string> words, int limit_s = 5);

/* Whether corosync runs on this node; true where systemd does not say. */
bool corosync_is_there();

} // namespace ctl
