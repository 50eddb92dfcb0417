#include "ctl/ask/bus.h"
#include "ctl/commands/commands.h"
#include "ctl/doctor/facts.h"
#include "ctl/print/json.h"
#include "ctl/print/nodes.h"
#include "ctl/print/text.h"

#include <algorithm>

namespace ctl {

namespace {

std::string label(const char *name) {
    return paint(Colour::faint, column(name, 12));
}

std::string master_line(const client::Snapshot &snapshot) {
    const std::string node = node_text(snapshot.master_node);
    return snapshot.master_node == 0 ? paint(Colour::bad, "none known")
           : snapshot.is_master      ? paint(Colour::good, node + ", this node")
                                     : node;
}

std::string frozen_line(const client::Snapshot &now) {
    const char *self = now.frozen_node == now.local_node ? ", this node" : "";
    return now.frozen_node == 0
               ? "no"
               : paint(Colour::doubtful, "to " + node_text(now.frozen_node) + self + ": " +
                                             reason_text(now.frozen_reason));
}

std::string members_line(const client::Snapshot &now) {
    return now.members == 0   ? paint(Colour::bad, "0: the daemon has not joined the group yet")
           : now.members == 1 ? paint(Colour::doubtful, "1: no other node could take over")
                              : std::to_string(now.members);
}

void print_status(const client::Snapshot &snapshot, const KeeperView &keeper) {
    const char *role = snapshot.is_master          ? "master"
                       : snapshot.master_node != 0 ? "slave"
                                                   : "no role yet";
    /* With a keeper, the daemon's preference is how it keeps the master where it is. */
    const bool preferred =
        keeper ? std::ranges::any_of(keeper->nodes,
                                     [&snapshot](const auto &node) {
                                         return node.preferred && node.id == snapshot.local_node;
                                     })
               : snapshot.preferred;
    print(label("master") + master_line(snapshot) + "\n");
    print(label("this node") + node_text(snapshot.local_node) + ", " + role +
          (preferred ? ", preferred as master" : "") + "\n");
    print(label("members") + members_line(snapshot) + "\n");
    print(label("frozen") + frozen_line(snapshot) + "\n");
    print(label("transition") +
          (snapshot.in_transition
               ? paint(Colour::doubtful, "yes: the run steps of this node are not done")
               : "no") +
          "\n");
    print(label("devices") + std::to_string(snapshot.devices) + "\n");
    /* Corosync reports only root. */
    if (const CorosyncFacts corosync = ask_corosync(); corosync.loss.count() > 0) {
        print(label("a loss") + corosync.loss_text() + "\n");
    }
}

} // namespace

int command_status(const Options &options) {
    Bus bus;
    const Result<client::Snapshot> snapshot = open_daemon(bus);
    const KeeperView keeper = read_keeper(bus, snapshot);
    if (options.json) {
        Json line;
        if (snapshot) {
            line = {{"state", "running"}};
            line.update(json_snapshot(*snapshot));
        } else {
            line = {{"state", spec_of(snapshot.problem()).word},
                    {"message", problem_text(snapshot.problem())},
                    {"next", spec_of(snapshot.problem()).advice}};
        }
        line["keeper"] = keeper ? json_keeper(*keeper) : Json();
        print_line(json_line(line));
        return snapshot ? Exit::ok : spec_of(snapshot.problem()).exit_status;
    }
    if (snapshot) {
        print_status(*snapshot, keeper);
    }
    if (keeper) {
        print("\n" + nodes_table(*keeper));
    } else if (snapshot) {
        print(label("nodes") + "not known: " + keeper.why_not + "\n");
    }
    return snapshot ? Exit::ok : report(snapshot.problem());
}

} // namespace ctl
