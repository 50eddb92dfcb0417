#include "keeper/policy/policies.h"

namespace keeper {

static NodeStatus status_of(Turn &turn, NodeId node) {
    using enum NodeStatus::Role;
    const Known &known = turn.known;
    const bool local = node == known.local;
    const bool current = local || known.present(node);
    const auto peer = known.peers.find(node);
    const bool heard = peer != known.peers.end() && !local;
    const Report report = known.report(node);
    const std::string unfit = known.why_unfit(node);
    NodeStatus status;
    status.id = node;
    for (const CorosyncRead::Node &listed : known.corosync.nodes) {
        if (listed.id == node) {
            status.listed = true;
            status.name = listed.name;
        }
    }
    status.member = local ? known.ready : heard && peer->second.member;
    status.role = !status.member                   ? down
                  : !current || report.master == 0 ? unknown
                  : report.master == node          ? master
                                                   : slave;
    if (current) {
        status.steps = word(report.steps.phase);
        status.step = report.steps.step;
        status.status = report.steps.status;
        status.since = report.steps.since;
        status.quorum = report.quorum;
        status.leaving = report.leaving;
    }
    status.preferred = report.wanted;
    status.unfit = unfit.empty() ? std::nullopt : std::optional(unfit);
    if (heard) {
        status.heard = peer->second.heard;
        turn.due(*status.heard + fresh_for);
    }
    return status;
}

Published publish(Turn &turn, const std::string &freeze_changed) {
    const Known &known = turn.known;
    std::set<NodeId> nodes;
    for (const CorosyncRead::Node &node : known.corosync.nodes) {
        nodes.insert(node.id);
    }
    for (const auto &[node, peer] : known.peers) {
        nodes.insert(node);
    }
    if (known.local != 0) {
        nodes.insert(known.local);
    }
    const std::string quorum_off = QuorumGuard::why_off(known);
    Published published;
    published.local = known.local;
    for (const NodeId node : nodes) {
        published.nodes.push_back(status_of(turn, node));
    }
    published.master = known.current.master_node;
    published.frozen = known.current.frozen_node;
    published.freeze_changed = freeze_changed;
    published.stay = known.stay_off.empty() ? "on" : known.stay_off;
    published.quorum = quorum_off.empty() ? "on" : quorum_off;
    published.moving = known.moving ? describe(known, *known.moving) : "";
    published.failed_steps = known.runner.failures;
    published.master_changes = known.master_changes;
    published.aborts = known.aborts;
    published.verdict = judge(turn, published);
    return published;
}

} // namespace keeper
