#include "ctl/ask/request.h"
#include "ctl/commands/commands.h"
#include "ctl/print/text.h"

namespace ctl {

int command_take_over(const Options &options) {
    Request request;
    request.name = "take-over";
    request.needs_no_freeze = true;
    request.call = client::take_over();
    /* The keepers let one move at a time through, and wait until the election of a join is over. A
       master that takes over only runs its steps again. */
    request.by_keeper = [](const client::Snapshot &before,
                           const client::KeeperState &) -> std::optional<client::Call> {
        return before.is_master ? std::nullopt
                                : std::optional(client::keeper_move(before.local_node));
    };
    request.asked = [](const client::Snapshot &before) {
        return "asked for " + node_text(before.local_node) + ", this node, to be master";
    };
    request.effect = [](const client::Announcement &announcement, const client::Snapshot &before) {
        const auto *master = std::get_if<client::NewMaster>(&announcement);
        return master != nullptr && master->node == before.local_node;
    };
    request.holds = [](const client::Snapshot &now) { return now.is_master; };
    return carry_out(request, options.wait);
}

} // namespace ctl
