/* What a command line asks for, checked: each command reads those values that its row names. */
#pragma once

#include <optional>
#include <string>

namespace ctl {

struct Command;

struct Options {
    const Command *command = nullptr; /* not null after parsing */

    bool alone = false;
    bool json = false;
    bool yes = false;
    std::optional<unsigned> last;
    std::string log;
    std::optional<unsigned> members;
    std::string since;
    std::optional<double> timeout; /* seconds, above 0 */
    std::optional<double> wait;    /* likewise */

    std::string word; /* one of those that the command takes, such as "on" or "stable" */
    std::string text; /* valid UTF-8 */
    std::string devpath;
};

/* Thrown for a line that is wrong, by the parser or by a command that finds it out by itself. */
struct WrongLine {
    const Command *command; /* null: none was named */
    std::string fault;      /* a sentence without its full stop */
};

} // namespace ctl
