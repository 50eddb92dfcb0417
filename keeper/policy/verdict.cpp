#include "keeper/policy/policies.h"

namespace keeper {

namespace {

/* Reports of a change arrive one after the other. */
constexpr Duration agree_within{3'000};

struct Causes {
    std::vector<std::string> critical, warning, unknown, ok;
};

bool is(const NodeStatus &node, Phase phase) {
    return node.steps == word(phase);
}

bool in_ring(const Known &known, NodeId node) {
    return std::ranges::find(known.quorum.ring, node) != known.quorum.ring.end();
}

/* Its steps must have succeeded. */
void judge_master(Turn &turn, const NodeStatus &master, Causes &causes) {
    const Known &known = turn.known;
    const std::string name = known.name(master.id) + " is master";
    const std::string step = master.step.empty() ? "a step" : "step " + master.step;
    if (is(master, Phase::failed)) {
        causes.critical.push_back(name + ", but " + step + " failed");
    } else if (is(master, Phase::not_runnable)) {
        causes.critical.push_back(name + ", but " + step + " cannot be run");
    } else if (is(master, Phase::running)) {
        const bool hangs = turn.due(*master.since + known.config.step_limit);
        (hangs ? causes.critical : causes.warning)
            .push_back(name + ", but " + step + (hangs ? " hangs" : " is running"));
    } else if (is(master, Phase::settled)) {
        causes.ok.push_back(name);
    } else {
        causes.unknown.push_back(name + ", but it is not known whether its steps succeeded");
    }
    if (const std::string unfit = known.report(master.id).unfit; !unfit.empty()) {
        causes.critical.push_back(name + " and is not fit: " + unfit +
                                  "; when that is repaired: duskvalectl fit");
    }
}

/* It must be able to take over. */
void judge_other(const Known &known, const NodeStatus &node, Causes &causes) {
    const std::string name = known.name(node.id);
    if (!in_ring(known, node.id)) {
        causes.warning.push_back(name + " is missing");
    } else if (node.unfit && node.unfit != busy) {
        causes.warning.push_back(name + " could not take over: " + *node.unfit);
    }
    if (is(node, Phase::failed) || is(node, Phase::not_runnable)) {
        causes.warning.push_back(name + " is slave, but may still serve: step " + node.step +
                                 " did not succeed with stop");
    }
}

/* Why this node's keeper cannot see the cluster; empty: it can. */
std::string blind(const Known &known) {
    if (!known.quorum.connected) {
        return "corosync does not answer on this node";
    }
    if (!known.quorum.quorate && QuorumGuard::why_off(known).empty()) {
        return "this node has no quorum and does not serve; if the others are lost for good: "
               "corosync-quorumtool -e 1, or after a start without them: "
               "corosync-cmapctl -s quorum.cancel_wait_for_all u8 1";
    }
    return !known.ready                     ? "the daemon does not run on this node"
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
    if (!in_ring(known, published.master)) {
        causes.critical.push_back("nobody serves: " + known.name(published.master) +
                                  " is master and is lost");
    }
    if (known.frozen() && !in_ring(known, published.frozen)) {
        causes.critical.push_back(known.frozen_text() +
                                  ", which is lost; to go on without it: "
                                  "duskvalectl unfreeze" +
                                  (alone ? " --alone" : ""));
    } else if (known.frozen()) {
        causes.warning.push_back(known.frozen_text());
    }
    if (alone) {
        causes.warning.push_back("this node is alone in the group: nobody could take over");
    }
    if (known.disagree_since && turn.due(*known.disagree_since + agree_within)) {
        causes.critical.push_back("the nodes name different masters; to end that: duskvalectl "
                                  "take-over on one of them");
    }
    if (!published.freeze_changed.empty()) {
        causes.warning.push_back(published.freeze_changed);
    }
}

} // namespace

Verdict judge(Turn &turn, const Published &published) {
    Causes causes;
    const std::string reason = blind(turn.known);
    if (reason.empty()) {
        judge_cluster(turn, published, causes);
    } else {
        causes.critical.push_back(reason);
    }
    if (!turn.known.disk_problem.empty()) {
        causes.warning.push_back("the marks of this node are not on its disk: " +
                                 turn.known.disk_problem);
    }
    using enum Verdict::Level;
    Verdict verdict{.level = !causes.critical.empty()  ? critical
                             : !causes.warning.empty() ? warning
                             : !causes.unknown.empty() ? unknown
                                                       : ok,
                    .causes = std::move(causes.critical)};
    for (const auto *more : {&causes.warning, &causes.unknown, &causes.ok}) {
        verdict.causes.insert(verdict.causes.end(), more->begin(), more->end());
    }
    return verdict;
}

} // namespace keeper
