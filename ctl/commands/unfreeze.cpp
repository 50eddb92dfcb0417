#include "ctl/ask/request.h"
#include "ctl/commands/commands.h"
#include "ctl/print/text.h"

#include "base/paths.h"

namespace ctl {

int command_unfreeze(const Options &options) {
    Request request;
    request.name = "unfreeze";
    request.call = client::unfreeze();
    request.asked = [](const client::Snapshot &before) {
        return before.frozen_node != 0
                   ? "asked to lift the freeze to " + node_text(before.frozen_node) +
                         "; an election follows"
                   : std::string("asked to lift a freeze, though this node knows of none; an "
                                 "election follows");
    };
    request.effect = [](const client::Announcement &announcement, const client::Snapshot &) {
        const auto *frozen = std::get_if<client::FrozenMaster>(&announcement);
        return frozen != nullptr && frozen->node == 0;
    };
    request.stored_in = DUSKVALE_FROZEN_MASTER_FILE;
    request.is_stored = [](const StoredSetting &stored) { return stored.value() == 0; };
    request.election = [](const client::Snapshot &) { return true; };
    request.holds = [](const client::Snapshot &now) { return now.frozen_node == 0; };
    return carry_out(request, options.wait);
}

} // namespace ctl
