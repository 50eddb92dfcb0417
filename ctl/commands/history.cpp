#include "ctl/commands/commands.h"
#include "ctl/log/told.h"
#include "ctl/print/json.h"
#include "ctl/print/text.h"

namespace ctl {

int command_history(const Arguments &arguments) {
    std::optional<unsigned> last;
    if (arguments.has(Opt::last)) {
        last = parse_count(arguments.value(Opt::last), 1);
        if (!last) {
            return usage_fault(arguments, "--last takes a whole number from 1 up");
        }
    }
    int status = static_cast<int>(Exit::ok);
    const auto episodes = read_named_log(arguments, status);
    if (!episodes) {
        return status;
    }
    std::span<const Episode> shown = *episodes;
    if (last && *last < shown.size()) {
        shown = shown.last(*last);
    }
    if (!arguments.has(Opt::json)) {
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
