#include "ctl/commands/commands.h"
#include "ctl/log/told.h"
#include "ctl/print/json.h"
#include "ctl/print/text.h"

namespace ctl {

int command_history(const Options &options) {
    int status = Exit::ok;
    const auto episodes = read_named_log(options, status);
    if (!episodes) {
        return status;
    }
    std::span<const Episode> shown = *episodes;
    if (options.last && *options.last < shown.size()) {
        shown = shown.last(*options.last);
    }
    if (!options.json) {
        if (shown.empty()) {
            print_line("the log tells nothing of the daemon");
        }
        for (const Episode &episode : shown) {
            print_episode(episode);
        }
        return status;
    }
    Json list = Json::array();
    for (const Episode &episode : shown) {
        list.push_back(json_episode(episode));
    }
    print_line(json_line({{"episodes", list}}));
    return status;
}

} // namespace ctl
