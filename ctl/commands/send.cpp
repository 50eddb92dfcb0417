#include "ctl/ask/bus.h"
#include "ctl/commands/commands.h"
#include "ctl/print/text.h"

namespace ctl {

int command_send(const Arguments &arguments) {
    Bus bus;
    if (const std::optional<Problem> problem = bus.connect()) {
        return report(*problem);
    }
    const Result<bool> sent = bus.ask(client::send_message(arguments.positional.front()));
    if (!sent) {
        return report(sent.problem());
    }
    print_line("asked to show the text on every node");
    return static_cast<int>(Exit::ok);
}

} // namespace ctl
