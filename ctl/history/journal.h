/* The journal of the daemon's unit, as journalctl prints it: see systemd.journal-fields(7). */
#pragma once

#include "ctl/history/event.h"

#include <nlohmann/json.hpp>

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace ctl {

/*
 * The one table that turns an entry into an event is behind this. No value for an entry that says
 * nothing to an operator, or that others wrote. A line that the table does not have is a Remark,
 * unless it is a debug line.
 */
std::optional<Record> read_record(const nlohmann::json &entry);

struct Source {
    std::string file;  /* what journalctl -o json printed; "-": standard input; "": the journal */
    std::string since; /* for the journal, in the words of journalctl; "": all */
};

struct Reading {
    std::vector<Record> records = {}; /* oldest first; what no operator needs is left out */
    NodeId local = 0;                 /* this node; 0: the records do not say */
    bool all = true;                  /* the source holds no other entries */
};

/* Of the journal only the last `entries`, or all since a time, and more while they are not enough;
   a file is read whole. */
Reading read_records(const Source &source, std::size_t entries,
                     const std::function<bool(const Reading &)> &enough);

} // namespace ctl
