#include "ctl/ask/request.h"
#include "ctl/commands/commands.h"
#include "ctl/print/nodes.h"
#include "ctl/print/text.h"

#include <algorithm>

namespace ctl {

namespace {

constexpr double look_again_s = 0.1;

constexpr const char *without_keeper =
    "systemctl enable --now duskvale-keeper; or, on the node that is to be master: "
    "duskvalectl take-over";

const client::KeeperNode *find(const client::KeeperState &keeper, const std::string &word) {
    const auto found = std::ranges::find_if(keeper.nodes, [&](const client::KeeperNode &node) {
        return node.name == word || std::to_string(node.id) == word;
    });
    return found != keeper.nodes.end() ? &*found : nullptr;
}

std::string no_such_node(const client::KeeperState &keeper, const std::string &word) {
    std::string text = "there is not a node '" + printable(word) + "'\nNext: name one of these:";
    for (const client::KeeperNode &node : keeper.nodes) {
        text += " " + (node.name.empty() ? std::to_string(node.id) : printable(node.name));
    }
    return text;
}

/* Until the steps of the master are done. */
int wait_for_steps(Bus &bus, double limit) {
    const Deadline deadline = after(limit);
    while (true) {
        const KeeperView keeper = bus.read_keeper();
        if (!keeper) {
            return complain(Exit::failed, keeper.why_not + "\nNext: duskvalectl status");
        }
        const auto master = std::ranges::find(keeper->nodes, "master", &client::KeeperNode::role);
        if (master != keeper->nodes.end() && master->steps != "running" &&
            master->steps != "unknown") {
            const std::string text = node_text(*master) + ": run steps " + steps_text(*master);
            if (master->steps != "settled") {
                return complain(Exit::failed, text);
            }
            print_line(text);
            return Exit::ok;
        }
        if (passed(deadline)) {
            return complain(Exit::timed_out, "timed out: the run steps are not done");
        }
        bus.next(after(look_again_s));
    }
}

} // namespace

int command_move(const Options &options) {
    Bus bus;
    bus.connect();
    client::NodeId target = 0;
    if (const auto keeper = bus.read_keeper(); keeper && !options.text.empty()) {
        const client::KeeperNode *node = find(*keeper, options.text);
        if (node == nullptr) {
            return complain(Exit::failed, no_such_node(*keeper, options.text));
        }
        target = node->id;
    }
    const int status = ask_keeper(bus, "move" + (options.text.empty() ? "" : " " + options.text),
                                  client::keeper_move(target), without_keeper);
    return status == Exit::ok && options.wait ? wait_for_steps(bus, *options.wait) : status;
}

} // namespace ctl
