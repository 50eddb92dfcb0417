#include "ctl/commands/commands.h"
#include "ctl/history/journal.h"
#include "ctl/history/sentence.h"

#include <algorithm>
#include <limits>
#include <span>

namespace ctl {

int command_history(const Options &options) {
    const std::size_t wanted = options.last.value_or(std::numeric_limits<int>::max());
    /* Some entries say nothing to an operator. */
    const Reading reading =
        read_records({options.log, options.since}, wanted,
                     [wanted](const Reading &now) { return now.records.size() >= wanted; });
    for (const Record &record :
         std::span(reading.records).last(std::min(wanted, reading.records.size()))) {
        print_wording(record.time.realtime, wording(record.event, reading.local), options.json);
    }
    return Exit::ok;
}

} // namespace ctl
