/* From the words of a command line to the command and its options. */
#pragma once

#include "ctl/line/command.h"

#include <span>
#include <string>
#include <variant>

namespace ctl {

/* What the line asks for is this text on standard output: a help, the version. */
struct Text {
    std::string text;
};
using Parsed = std::variant<Options, Text>;

/* `commands` begins with the one that a line without a command means. Throws a WrongLine. */
Parsed parse_line(std::span<const Command> commands, int argc, char **argv);

/* Writes what is wrong on standard error; returns the exit status. */
int report(const WrongLine &line);

} // namespace ctl
