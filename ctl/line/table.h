/*
 * The one table of what duskvalectl understands. The command line is parsed by it, the help and the
 * completion are made from it, and a test holds the man page against it. A new command is a row
 * here and a file under commands/.
 */
#pragma once

#include "ctl/exit-status.h"
#include "ctl/line/options.h"

#include <span>
#include <vector>

namespace CLI {
class App;
}

namespace ctl {

/* Adds an option or an argument to a command; its value goes into `options`. */
using Add = void (*)(CLI::App &command, Options &options);

struct Command {
    const char *name;
    const char *help;             /* one line */
    int (*run)(const Options &);  /* the result is the exit status */
    std::vector<Add> takes = {};  /* arguments in their order */
    int wrong_line = Exit::usage; /* the status for a wrong command line */
};

struct ExitSpec {
    int status;
    const char *meaning;
};

std::span<const Command> commands();
std::span<const ExitSpec> exit_statuses();

} // namespace ctl
