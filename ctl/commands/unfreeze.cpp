#include "ctl/commands/commands.h"
#include "ctl/output.h"
#include "ctl/request.h"

namespace ctl {

int command_unfreeze(const Arguments &arguments) {
    Request request;
    request.ask = [](Bus &bus) { return bus.ask("SetFreeze", g_variant_new("(bs)", FALSE, "")); };
    request.asked = [](const Snapshot &before) {
        return before.frozen_node != 0
                   ? "asked to lift the freeze to " + node_text(before.frozen_node) +
                         "; an election follows"
                   : std::string("asked to lift a freeze that this node knows nothing of; an "
                                 "election follows");
    };
    request.effect = [](const Notice &notice, const Snapshot &) {
        return notice.kind == NoticeKind::frozen_master && notice.node == 0;
    };
    request.election = [](const Snapshot &) { return true; };
    request.holds = [](const Snapshot &now) { return now.frozen_node == 0; };
    return carry_out(arguments, request);
}

} // namespace ctl
