#include "ctl/ask/bus.h"
#include "ctl/commands/commands.h"
#include "ctl/print/text.h"

namespace ctl {

int command_send(const Options &options) {
    Bus bus;
    if (const std::optional<Problem> problem = bus.connect()) {
        return report(*problem);
    }
    const Result<bool> sent = bus.ask(client::send_message(options.text));
    if (!sent) {
        return report(sent.problem());
    }
    print_line("asked to show the text on every node");
    return Exit::ok;
}

} // namespace ctl
