#include "ctl/commands/commands.h"
#include "ctl/history/last-change.h"
#include "ctl/print/json.h"
#include "ctl/print/text.h"

namespace ctl {

namespace {

Json json_change(const LastChange &change) {
    Json sentences = Json::array();
    for (const Sentence &sentence : change.sentences) {
        sentences.push_back({{"time", iso_text(sentence.time.realtime)}, {"text", sentence.text}});
    }
    return {{"master", json_node(change.master)},
            {"before", json_node(change.before)},
            {"without_master_ms", change.without_us ? Json(*change.without_us / 1000) : Json()},
            {"sentences", sentences}};
}

} // namespace

int command_why(const Options &options) {
    std::optional<LastChange> change;
    const Reading reading =
        read_records({options.log, options.since}, 1000, [&change](const Reading &now) {
            change = find_last_change(now);
            return change && change->complete;
        });
    if (options.json) {
        print_line(json_line({{"change", change ? json_change(*change) : Json()}}));
    } else if (!change) {
        print_line("what was read shows no change of master");
    } else {
        for (const Sentence &sentence : change->sentences) {
            print_line(date_clock_text(sentence.time.realtime) + "  " + sentence.text);
        }
    }
    return Exit::ok;
}

} // namespace ctl
