#include "ctl/ask/request.h"
#include "ctl/commands/commands.h"
#include "ctl/print/text.h"

#include <algorithm>

namespace ctl {

int command_give_back(const Options &options) {
    Request request;
    request.name = "give-back";
    request.needs_no_freeze = true;
    /* The daemon takes it on a slave too: then the other slaves take over from the master, or
       nothing happens where there is none. No operator means that. */
    request.objection = [](const client::Snapshot &before) -> std::string {
        if (before.is_master || before.frozen_node != 0) {
            return {};
        }
        if (before.master_node == 0) {
            return "no master is known\nNext: duskvalectl wait stable";
        }
        return "this node is not the master, " + node_text(before.master_node) +
               " is\nNext: ask there; or, on the node that should be master: duskvalectl take-over";
    };
    request.call = client::give_back();
    /* The keeper chooses one node, where the daemon would let all others take over at once. */
    request.by_keeper = [](const client::Snapshot &,
                           const client::KeeperState &keeper) -> std::optional<client::Call> {
        const bool others = std::ranges::any_of(
            keeper.nodes, [](const auto &node) { return node.member && node.heard; });
        return others ? std::optional(client::keeper_move(0)) : std::nullopt;
    };
    request.asked = [](const client::Snapshot &before) {
        return "asked for another node to be master instead of " + node_text(before.local_node) +
               ", this node";
    };
    request.effect = [](const client::Announcement &announcement, const client::Snapshot &before) {
        const auto *master = std::get_if<client::NewMaster>(&announcement);
        return master != nullptr && master->node != before.local_node;
    };
    request.holds = [](const client::Snapshot &now) { return !now.is_master; };
    return carry_out(request, options.wait);
}

} // namespace ctl
