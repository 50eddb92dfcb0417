/*
 * The one table of what duskvalectl understands. The parser and the help are made from it; tests
 * hold the man page and the completion against it. A new command is a row here and a file under
 * commands/.
 */
#pragma once

#include "ctl/exit-status.h"

#include <cstddef>
#include <span>

namespace ctl {

class Arguments;

enum class Opt { help, json, last, log, members, since, timeout, version, wait };

enum class Value { none, required, optional };

struct OptionSpec {
    Opt id;
    const char *name; /* without the leading dashes */
    Value value;
    const char *value_name; /* as the help shows it; null without a value */
    const char *help;
};

struct CommandSpec {
    const char *name;
    const char *arguments; /* as the help shows them; "" for none */
    std::size_t min_arguments;
    std::size_t max_arguments;
    std::span<const Opt> options;
    const char *help;              /* one line */
    int (*run)(const Arguments &); /* the result is the exit status */
};

struct ExitSpec {
    Exit status;
    const char *meaning;
};

std::span<const CommandSpec> commands();
std::span<const OptionSpec> options();
std::span<const ExitSpec> exit_statuses();

/* Null when there is no such command. */
const CommandSpec *find_command(const char *name);
const OptionSpec &option(Opt id);

} // namespace ctl
