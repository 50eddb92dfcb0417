/* What `why` and `history` have in common. */
#pragma once

#include "ctl/line/options.h"
#include "ctl/log/reader.h"
#include "ctl/log/tell.h"

namespace ctl {

/* Reads the log that the options name; no value after a message on standard error, with the exit
   status in `status`. */
std::optional<std::vector<Episode>> read_named_log(const Options &options, int &status);

/* The episode's headline and, indented, what led to it and how it went. */
void print_episode(const Episode &episode);

} // namespace ctl
