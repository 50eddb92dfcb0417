#include "ctl/commands/commands.h"
#include "ctl/output.h"
#include "ctl/request.h"

namespace ctl {

int command_take_over(const Arguments &arguments) {
    Request request;
    request.needs_no_freeze = true;
    request.ask = [](Bus &bus) { return bus.ask("TakeOver", nullptr); };
    request.asked = [](const Snapshot &before) {
        return "asked for " + node_text(before.local_node) + ", this node, to be master";
    };
    request.effect = [](const Notice &notice, const Snapshot &before) {
        return notice.kind == NoticeKind::new_master && notice.node == before.local_node;
    };
    request.holds = [](const Snapshot &now) { return now.is_master; };
    return carry_out(arguments, request);
}

} // namespace ctl
