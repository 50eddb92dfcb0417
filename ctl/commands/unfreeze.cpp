#include "ctl/ask/request.h"
#include "ctl/commands/commands.h"
#include "ctl/print/text.h"

namespace ctl {

int command_unfreeze(const Options &options) {
    Request request;
    request.ask = [](Bus &bus) { return bus.ask(client::unfreeze()); };
    request.asked = [](const client::Snapshot &before) {
        return before.frozen_node != 0
                   ? "asked to lift the freeze to " + node_text(before.frozen_node) +
                         "; an election follows"
                   : std::string("asked to lift a freeze that this node knows nothing of; an "
                                 "election follows");
    };
    request.effect = [](const client::Announcement &announcement, const client::Snapshot &) {
        const auto *frozen = std::get_if<client::FrozenMaster>(&announcement);
        return frozen != nullptr && frozen->node == 0;
    };
    request.election = [](const client::Snapshot &) { return true; };
    request.holds = [](const client::Snapshot &now) { return now.frozen_node == 0; };
    return carry_out(request, options.wait);
}

} // namespace ctl
