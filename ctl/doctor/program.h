/* Another program's answer to a question. */
#pragma once

#include <string>
#include <vector>

namespace ctl {

struct ProgramAnswer {
    enum class End { exited, missing, timed_out };
    End end = End::missing;
    int status = -1; /* the exit status; -1 when it did not exit by itself */
    std::string out;
    std::string err; /* its complaint in one line; or why it could not be started */

    bool good() const { return end == End::exited && status == 0; }
};

/*
 * Runs a program that stands in the PATH or among the administrator's, which an ordinary user's
 * PATH leaves out, and waits for its end: 5 seconds at most, then it is killed.
 */
ProgramAnswer ask_program(std::vector<std::string> words);

} // namespace ctl
