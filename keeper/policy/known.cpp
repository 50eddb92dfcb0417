#include "keeper/policy/known.h"

namespace keeper {

Report Known::report(NodeId node) const {
    const auto peer = peers.find(node);
    if (node != local) {
        return peer != peers.end() ? peer->second.report : Report();
    }
    using enum NodeStatus::Quorum;
    return {.master = current.master_node,
            .frozen = current.frozen_node,
            .steps = runner.steps,
            .quorum = !quorum.connected ? unknown
                      : quorum.quorate  ? yes
                                        : no,
            .unfit = stored.unfit ? stored.unfit->reason : "",
            .leaving = leaving,
            .wanted = stored.preferred.value_or(false),
            .preferred = current.preferred,
            .stay = config.stay};
}

bool Known::present(NodeId node) const {
    const auto peer = peers.find(node);
    return peer != peers.end() && peer->second.member && now < peer->second.heard + fresh_for;
}

std::string Known::why_unfit(NodeId node) const {
    const Report last = report(node);
    return !present(node)                          ? "its keeper is not heard"
           : !last.unfit.empty()                   ? last.unfit
           : last.quorum == NodeStatus::Quorum::no ? "it has no quorum"
           : last.leaving                          ? "its daemon is being stopped"
           : last.steps.phase == Phase::running    ? busy
                                                   : "";
}

NodeId Known::best_other() const {
    NodeId best = 0;
    for (const auto &[node, peer] : peers) {
        const bool better = best == 0 || (peer.report.wanted && !peers.at(best).report.wanted);
        if (better && node != local && node != current.master_node && why_unfit(node).empty()) {
            best = node;
        }
    }
    return best;
}

std::string Known::name(NodeId node) const {
    std::string text = "node " + std::to_string(node);
    for (const CorosyncRead::Node &listed : corosync.nodes) {
        text += listed.id == node && !listed.name.empty() ? " (" + listed.name + ")" : "";
    }
    return text;
}

std::string Known::frozen_text() const {
    return "mastership is frozen to " + name(current.frozen_node) + " (" + current.frozen_reason +
           ")";
}

std::string seconds(Duration duration) {
    const auto tenths = (duration.count() + 50) / 100;
    const std::string part = tenths % 10 != 0 ? "." + std::to_string(tenths % 10) : "";
    return std::to_string(tenths / 10) + part + " s";
}

void Turn::prefer(bool on) {
    known.current.preferred = on;
    known.calm_at = std::max(known.calm_at, known.now + calm_after);
    act(WritePreferred{on});
}

void Turn::mark(std::optional<Unfit> unfit) {
    known.stored.unfit = std::move(unfit);
    act(Store{known.stored});
}

} // namespace keeper
