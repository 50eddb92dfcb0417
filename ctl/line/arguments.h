/* The kinds of things that a command can take, each with its check. A table of commands names them
   and says which of the options they set. */
#pragma once

#include "ctl/line/options.h"

#include <functional>
#include <initializer_list>
#include <optional>
#include <string>

namespace CLI {
class App;
}

namespace ctl {

/* Adds an option or an argument to a command; its value goes into `options`. */
using Argument = std::function<void(CLI::App &command, Options &options)>;

/* One of `words`, all of which `name` shows; into Options::word. */
Argument one_of(const char *name, std::initializer_list<std::string> words);
/* A text for the bus. */
Argument text(const char *name, std::string Options::*value, bool required = true);

Argument flag(const char *name, bool Options::*value, const char *help);
/* "--name=SHOWN": any text. */
Argument text_option(const char *name, const char *shown, std::string Options::*value,
                     const char *help);
/* "--name=N": a whole number from 1 up. */
Argument count_option(const char *name, std::optional<unsigned> Options::*value, const char *help);
/* "--name=SECONDS" */
Argument seconds_option(const char *name, std::optional<double> Options::*value, const char *help);
/* "--wait" or "--wait=SECONDS"; into Options::wait. */
Argument wait_option();

} // namespace ctl
