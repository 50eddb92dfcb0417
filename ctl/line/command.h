/* A command, as a row of the table in commands/table.cpp. */
#pragma once

#include "ctl/line/arguments.h"
#include "ctl/line/options.h"

#include <vector>

namespace ctl {

struct Command {
    const char *name;
    const char *help;                 /* one line */
    int (*run)(const Options &);      /* the result is the exit status; null for the help */
    std::vector<Argument> takes = {}; /* arguments in their order */
    bool is_check = false;            /* ends with CheckExit */
};

} // namespace ctl
