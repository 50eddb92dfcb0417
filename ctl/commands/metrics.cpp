#include "ctl/ask/bus.h"
#include "ctl/commands/commands.h"
#include "ctl/doctor/finding.h"
#include "ctl/print/json.h"
#include "ctl/print/text.h"

#include "version.h"

#include <algorithm>

namespace ctl {

namespace {

/* Gauges only: readers of the older text format, such as file collectors, know no other type that
   would fit. */
void heading(const char *name, const char *help) {
    print(std::string("# HELP duskvale_") + name + " " + help + "\n# TYPE duskvale_" + name +
          " gauge\n");
}

void figure(const char *name, int64_t value, const std::string &labels = "") {
    print(std::string("duskvale_") + name + labels + " " + std::to_string(value) + "\n");
}

void gauge(const char *name, const char *help, int64_t value, const std::string &labels = "") {
    heading(name, help);
    figure(name, value, labels);
}

/* In quotes. What is left to escape, JSON and OpenMetrics write alike. */
std::string quoted(const std::string &text) {
    return Json(printable(text)).dump();
}

void print_state(const client::Snapshot &now) {
    gauge("daemon", "The daemon that answered; always 1.", 1,
          "{interface_version=" + quoted(now.interface_version) +
              ",program_version=\"" DUSKVALE_VERSION "\",node=\"" + std::to_string(now.local_node) +
              "\"}");
    gauge("master_node", "Node id of the master, 0 while none is known.", now.master_node);
    gauge("is_master", "Whether this node is the master.", now.is_master ? 1 : 0);
    gauge("members", "Members of the group.", now.members);
    gauge("frozen_node", "Node id that mastership is frozen to, 0 while it is not.",
          now.frozen_node);
    gauge("preferred", "Whether this node is preferred as master.", now.preferred ? 1 : 0);
    gauge("in_transition", "Whether this node's run steps for its role are not done.",
          now.in_transition ? 1 : 0);
    gauge("devices", "Devices attached to this node.", now.devices);
}

/* A figure of each node. */
template <typename Figure>
void node_gauges(const client::KeeperState &keeper, const char *name, const char *help,
                 Figure figure_of) {
    heading(name, help);
    for (const client::KeeperNode &node : keeper.nodes) {
        figure(name, figure_of(node),
               "{node=\"" + std::to_string(node.id) + "\",name=" + quoted(node.name) + "}");
    }
}

void print_keeper(const client::KeeperState &keeper) {
    const auto self = std::ranges::find(keeper.nodes, keeper.local_node, &client::KeeperNode::id);
    const bool known = self != keeper.nodes.end();
    const bool running = known && self->steps == "running" && self->since;
    gauge("verdict", "What the keeper makes of it: 0 ok, 1 warning, 2 critical, 3 unknown.",
          spec_of(level_of_word(keeper.verdict)).exit_status);
    gauge("listed_nodes", "Nodes of corosync's node list.",
          std::ranges::count(keeper.nodes, true, &client::KeeperNode::listed));
    gauge("quorum", "Whether this node has quorum.", known && self->quorum == "yes" ? 1 : 0);
    gauge("step_running_seconds", "For how long the present run step of this node runs.",
          running ? (g_get_monotonic_time() - *self->since) / G_USEC_PER_SEC : 0);
    gauge("failed_steps", "Run steps of this node that failed since its keeper started.",
          static_cast<int64_t>(keeper.failed_steps));
    gauge("master_changes", "Changes of master seen since the keeper of this node started.",
          static_cast<int64_t>(keeper.master_changes));
    gauge("aborts", "Times the daemon of this node ended itself since its keeper started.",
          static_cast<int64_t>(keeper.aborts));
    node_gauges(keeper, "node_fit", "Whether the node can take over.",
                [](const auto &node) { return node.unfit ? 0 : 1; });
    node_gauges(keeper, "node_member", "Whether the node is in the group.",
                [](const auto &node) { return node.member ? 1 : 0; });
    node_gauges(keeper, "node_steps_failed", "Whether a run step of the node failed last.",
                [](const auto &node) {
                    return node.steps == "failed" || node.steps == "not-runnable" ? 1 : 0;
                });
}

} // namespace

int command_metrics(const Options &) {
    Bus bus;
    const Result<client::Snapshot> now = open_daemon(bus);
    gauge("up", "Whether the daemon answered on the system bus.", now ? 1 : 0);
    if (now) {
        print_state(*now);
    }
    const KeeperView keeper = read_keeper(bus, now);
    gauge("keeper_up", "Whether the keeper answered; without it the figures below are not known.",
          keeper ? 1 : 0);
    if (keeper) {
        print_keeper(*keeper);
    }
    print("# EOF\n");
    /* A collector must get the figure that shows the outage, so an outage is not a failure here. */
    return Exit::ok;
}

} // namespace ctl
