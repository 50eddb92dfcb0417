#include "keeper/policy/policies.h"

namespace keeper {

namespace {

using enum Verdict::Level;

/* Reports of a change arrive one after the other. */
constexpr Duration agree_within{3'000};

/* The worst first. */
using Causes = std::map<int, std::vector<std::string>>;
constexpr Verdict::Level by_rank[] = {critical, warning, unknown, ok};

void add(Causes &causes, Verdict::Level level, const std::string &cause) {
    const auto rank = std::ranges::find(by_rank, level) - by_rank;
    causes[static_cast<int>(rank)].push_back(cause);
}

/* Why nothing is to be expected of the node; empty: it takes part, as far as is known. */
std::string why_gone(const Known &known, NodeId node) {
    if (std::ranges::find(known.quorum.ring, node) == known.quorum.ring.end()) {
        return "is missing";
    }
    const auto peer = known.peers.find(node);
    const bool left = peer != known.peers.end() && !peer->second.member;
    return left ? "does not take part, its daemon does not run" : "";
}

/* Its steps must have succeeded. */
void judge_master(Turn &turn, const NodeStatus &master, Causes &causes) {
    const Known &known = turn.known;
    const std::string name = known.name(master.id) + " is master";
    const std::string but =
        name + ", but " + (master.step.empty() ? "a step" : "step " + master.step);
    const std::string unfit = known.report(master.id).unfit;
    const bool heard = master.id == known.local || known.present(master.id);
    const Phase phase = heard ? known.report(master.id).steps.phase : Phase::unknown;
    const std::string gone = why_gone(known, master.id);
    if (!gone.empty()) {
        add(causes, critical, "nobody serves: " + name + ", but " + gone);
    } else if (phase == Phase::failed) {
        add(causes, critical, but + " failed");
    } else if (phase == Phase::not_runnable) {
        add(causes, critical, but + " cannot be run");
    } else if (phase == Phase::running) {
        const bool hangs = turn.due(*master.since + known.config.step_limit);
        add(causes, hangs ? critical : warning, but + (hangs ? " hangs" : " is running"));
    } else if (phase == Phase::settled) {
        add(causes, ok, name);
    } else {
        add(causes, unknown,
            name + ", but " +
                (heard ? "it is not known whether its steps succeeded"
                       : "its keeper is not heard"));
    }
    if (!unfit.empty()) {
        add(causes, critical,
            name + " and is not fit: " + unfit + "; when that is repaired: duskvalectl fit");
    }
}

/* It must be able to take over. */
void judge_other(const Known &known, const NodeStatus &node, Causes &causes) {
    const Phase phase = known.report(node.id).steps.phase;
    const std::string name = known.name(node.id);
    const std::string gone = why_gone(known, node.id);
    if (!gone.empty()) {
        add(causes, warning, name + " " + gone);
    } else if (node.unfit && node.unfit != busy) {
        add(causes, warning, name + " could not take over: " + *node.unfit);
    }
    if (phase == Phase::failed || phase == Phase::not_runnable) {
        add(causes, warning,
            name + " is slave, but may still serve: step " + node.step + " failed with stop");
    }
}

/* Why this node's keeper cannot see the cluster; empty: it can. */
std::string blind(const Known &known) {
    return !known.quorum.connected ? "corosync does not answer on this node"
           : !known.quorum.quorate && QuorumGuard::why_off(known).empty()
               ? "this node has no quorum and does not serve; if the others are lost for good: "
                 "corosync-quorumtool -e 1, or after a start without them: "
                 "corosync-cmapctl -s quorum.cancel_wait_for_all u8 1"
           : !known.ready                   ? "the daemon does not run on this node"
           : known.current.master_node == 0 ? "nobody serves: no master is known"
                                            : "";
}

void judge_cluster(Turn &turn, const Published &published, Causes &causes) {
    const Known &known = turn.known;
    const bool alone = known.current.members < 2;
    for (const NodeStatus &node : published.nodes) {
        if (node.id == published.master) {
            judge_master(turn, node, causes);
        } else if (node.listed || node.member) {
            judge_other(known, node, causes);
        }
    }
    if (known.frozen() && !why_gone(known, published.frozen).empty()) {
        add(causes, critical,
            known.frozen_text() + ", which is lost; to go on without it: duskvalectl unfreeze" +
                (alone ? " --alone" : ""));
    } else if (known.frozen()) {
        add(causes, warning, known.frozen_text());
    }
    if (alone) {
        add(causes, warning, "this node is alone in the group: nobody could take over");
    }
    if (known.disagree_since && turn.due(*known.disagree_since + agree_within)) {
        add(causes, critical,
            "the nodes name different masters; to end that: duskvalectl take-over on one of them");
    }
    if (!published.freeze_changed.empty()) {
        add(causes, warning, published.freeze_changed);
    }
}

} // namespace

Verdict judge(Turn &turn, const Published &published) {
    Causes causes;
    const std::string reason = blind(turn.known);
    if (reason.empty()) {
        judge_cluster(turn, published, causes);
    } else {
        add(causes, critical, reason);
    }
    if (!turn.known.disk_problem.empty()) {
        add(causes, warning,
            "the marks of this node are not on its disk: " + turn.known.disk_problem);
    }
    Verdict verdict;
    for (const auto &[rank, list] : causes) {
        verdict.level = verdict.causes.empty() ? by_rank[rank] : verdict.level;
        verdict.causes.insert(verdict.causes.end(), list.begin(), list.end());
    }
    return verdict;
}

} // namespace keeper
