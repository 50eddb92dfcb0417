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
    JsonLine line;
    line.open_array("episodes");
    for (const Episode &episode : shown) {
        line.open_object(nullptr);
        add_episode(line, episode);
        line.close_object();
    }
    line.close_array();
    print_line(line.text());
    return status;
}

} // namespace ctl
