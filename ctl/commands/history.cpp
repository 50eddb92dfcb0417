#include "ctl/commands/commands.h"
#include "ctl/history/journal.h"
#include "ctl/history/sentence.h"

#include <algorithm>
#include <limits>
#include <span>

namespace ctl {

int command_history(const Options &options) {
    const std::size_t wanted = options.last.value_or(std::numeric_limits<int>::max());
    Reading reading{.all = false};
    /* Some entries say nothing to an operator. */
    for (std::size_t entries = wanted; !reading.all && reading.records.size() < wanted;
         entries *= 2) {
        reading = read_records({options.log, options.since}, entries);
    }
    if (!reading.fault.empty()) {
        return complain(Exit::failed, reading.fault);
    }
    for (const Record &record :
         std::span(reading.records).last(std::min(wanted, reading.records.size()))) {
        print_wording(record.time.realtime, wording(record.event, reading.local), options.json);
    }
    return Exit::ok;
}

} // namespace ctl
