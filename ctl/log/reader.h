/* Where the daemon's log is read from: its journal, a file, or standard input. */
#pragma once

#include "ctl/log/episode.h"

#include <optional>
#include <string>
#include <vector>

namespace ctl {

struct LogSource {
    std::string file;  /* "-" for standard input, "" for the journal */
    std::string since; /* for the journal, in the words of journalctl; "" for all */
};

struct LogRead {
    std::vector<Episode> episodes;
    std::string
        fault; /* why the log could not be read, with what to do instead; "" when it could */
};

LogRead read_log(const LogSource &source);

} // namespace ctl
