#include "ctl/ask/bus.h"
#include "ctl/commands/commands.h"
#include "ctl/print/text.h"

namespace ctl {

int command_keep_alive(const Options &) {
    Bus bus;
    if (const std::optional<Problem> problem = bus.connect()) {
        return report(*problem);
    }
    const Result<bool> sent = bus.ask(client::keep_alive());
    if (!sent) {
        return report(sent.problem());
    }
    print_line("asked to show a sign of life of this node on every node");
    return Exit::ok;
}

} // namespace ctl
