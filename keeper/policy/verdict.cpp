#include "keeper/policy/policies.h"

namespace keeper {

using enum Level;

struct Causes {
    std::map<Level, std::vector<std::string>, std::greater<>> by_level; /* the worst first */
    void add(Level level, const std::string &cause) { by_level[level].push_back(cause); }
};

/* Why nothing is to be expected of the node; empty: it takes part, as far as is known. Without
   votequorum corosync does not say who is in the ring. */
static std::string why_gone(const Known &known, NodeId node) {
    const auto peer = known.peers.find(node);
    const std::vector<NodeId> &ring = known.corosync.ring;
    return known.corosync.votequorum && std::ranges::find(ring, node) == ring.end() ? "is missing"
           : peer != known.peers.end() && !peer->second.member
               ? "does not take part, its daemon does not run"
               : "";
}

/* Its steps must have succeeded. */
static void judge_master(Turn &turn, NodeId master, Causes &causes) {
    const Known &known = turn.known;
    const Report report = known.report(master);
    const bool heard = master == known.local || known.present(master);
    const std::string name = known.name(master) + " is master";
    const std::string step = report.steps.step.empty() ? "a step" : "step " + report.steps.step;
    const std::string gone = why_gone(known, master);
    const auto but = [&](Level level, const std::string &what) {
        causes.add(level, name + ", but " + what);
    };
    if (!gone.empty()) {
        causes.add(critical, "nobody serves: " + name + ", but " + gone);
    } else if (!heard) {
        but(unknown, "its keeper is not heard");
    } else if (report.steps.phase == Phase::failed) {
        but(critical, step + " failed");
    } else if (report.steps.phase == Phase::not_runnable) {
        but(critical, step + " cannot be run");
    } else if (report.steps.phase == Phase::running) {
        const bool hangs = turn.due(report.steps.since + known.config.step_limit);
        but(hangs ? critical : warning, step + (hangs ? " hangs" : " is running"));
    } else if (report.steps.phase == Phase::settled) {
        causes.add(ok, name);
    } else {
        but(unknown, "it is not known whether its steps succeeded");
    }
    if (!report.unfit.empty()) {
        causes.add(critical, name + " and is not fit: " + report.unfit +
                                 "; when that is repaired: duskvalectl fit");
    }
}

/* It must be able to take over. */
static void judge_other(const Known &known, NodeId node, Causes &causes) {
    const Steps steps = known.report(node).steps;
    const std::string name = known.name(node);
    const std::string gone = why_gone(known, node);
    const std::string unfit = known.why_unfit(node);
    if (!gone.empty()) {
        causes.add(warning, name + " " + gone);
    } else if (!unfit.empty() && unfit != busy) {
        causes.add(warning, name + " could not take over: " + unfit);
    }
    if (steps.phase == Phase::failed || steps.phase == Phase::not_runnable) {
        causes.add(warning, name + " is slave, but may still serve: step " + steps.step +
                                " failed with stop");
    }
}

/* Why this node's keeper cannot see the cluster; empty: it can. */
static std::string blind(const Known &known) {
    const bool guarded = QuorumGuard::why_off(known.config, known.corosync).empty();
    return !known.corosync.connected ? "corosync does not answer on this node"
           : !known.corosync.quorate && guarded
               ? "this node has no quorum and does not serve; if the others are lost for good: "
                 "corosync-quorumtool -e 1, or after a start without them: "
                 "corosync-cmapctl -s quorum.cancel_wait_for_all u8 1"
           : known.unit.stop_steps == Phase::stop_failed && !known.ready
               ? "the daemon does not run on this node, and its steps failed with stop"
           : !known.ready                   ? "the daemon does not run on this node"
           : known.current.master_node == 0 ? "nobody serves: no master is known"
                                            : "";
}

static void judge_cluster(Turn &turn, const std::string &freeze_changed, Causes &causes) {
    const Known &known = turn.known;
    const NodeId frozen = known.current.frozen_node;
    const bool alone = known.current.members < 2;
    const NodeId master = known.current.master_node;
    judge_master(turn, master, causes);
    for (const auto &[node, name] : known.nodes()) {
        if (node != master && (known.corosync.nodes.contains(node) || known.member(node))) {
            judge_other(known, node, causes);
        }
    }
    const bool gone = !why_gone(known, frozen).empty();
    if (frozen != 0 && (gone || !why_gone(known, master).empty())) {
        causes.add(critical, known.frozen_text() + ", " + (gone ? "which" : "and the master") +
                                 " is lost; to go on without it: duskvalectl unfreeze" +
                                 (alone ? " --alone" : ""));
    } else if (frozen != 0) {
        causes.add(warning, known.frozen_text());
    }
    if (alone) {
        causes.add(warning, "this node is alone in the group: nobody could take over");
    }
    if (!freeze_changed.empty()) {
        causes.add(warning, freeze_changed);
    }
}

Verdict judge(Turn &turn, const std::string &freeze_changed) {
    const Known &known = turn.known;
    Causes causes;
    if (const std::string reason = blind(known); !reason.empty()) {
        causes.add(critical, reason);
    } else {
        judge_cluster(turn, freeze_changed, causes);
    }
    if (!known.disk_problem.empty()) {
        causes.add(warning, "the marks of this node are not on its disk: " + known.disk_problem);
    }
    Verdict verdict;
    verdict.level = causes.by_level.begin()->first;
    for (const auto &[level, list] : causes.by_level) {
        verdict.causes.insert(verdict.causes.end(), list.begin(), list.end());
    }
    return verdict;
}

} // namespace keeper
