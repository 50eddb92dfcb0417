#include "ctl/ask/request.h"
#include "ctl/commands/commands.h"
#include "ctl/print/text.h"

namespace ctl {

int command_prefer(const Options &options) {
    const bool preferred = options.word == "on";
    Request request;
    request.ask = [preferred](Bus &bus) { return bus.ask(client::set_preferred(preferred)); };
    request.asked = [preferred](const client::Snapshot &before) {
        return node_text(before.local_node) + ", this node, is " +
               (preferred ? "now preferred as master" : "no longer preferred as master") +
               (before.frozen_node != 0
                    ? "; no election: mastership is frozen to " + node_text(before.frozen_node)
                    : "; an election follows");
    };
    request.election = [](const client::Snapshot &before) { return before.frozen_node == 0; };
    request.holds = [preferred](const client::Snapshot &now) { return now.preferred == preferred; };
    return carry_out(request, options.wait);
}

} // namespace ctl
