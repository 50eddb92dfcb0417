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
/* A fault was printed on standard error; the program ends with `status`. */
struct WrongLine {
    int status;
};
using Parsed = std::variant<Options, Text, WrongLine>;

/* `commands` begins with the one that a line without a command means. */
Parsed parse_line(std::span<const Command> commands, int argc, char **argv);

} // namespace ctl
