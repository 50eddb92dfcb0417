#include "keeper/policy/known.h"

namespace keeper {

Report Known::report(NodeId node) const {
    if (node != local) {
        const auto peer = peers.find(node);
        return peer != peers.end() ? peer->second.report : Report();
    }
    return {.request = request,
            .master = current.master_node,
            .steps = daemon ? steps : Steps{.phase = unit.stop_steps},
            .quorum = !corosync.connected ? Quorum::unknown
                      : corosync.quorate  ? Quorum::yes
                                          : Quorum::no,
            .unfit = stored.unfit,
            .leaving = leaving,
            .wanted = stored.preferred == "true",
            .preferred = current.preferred,
            .settling = settling,
            .stay = config.stay};
}

bool Known::present(NodeId node) const {
    const auto peer = peers.find(node);
    return peer != peers.end() && peer->second.member && now < peer->second.heard + fresh_for;
}

std::string Known::why_unfit(NodeId node) const {
    const Report last = report(node);
    const char *silent = node != local ? "its keeper is not heard"
                         : ready       ? "corosync does not carry its messages"
                                       : "its daemon does not run";
    return !present(node)                       ? silent
           : !last.unfit.empty()                ? last.unfit
           : last.quorum == Quorum::no          ? "it has no quorum"
           : last.leaving                       ? "its daemon is being stopped"
           : last.steps.phase == Phase::running ? busy
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

bool Known::some_other(const std::string &reason) const {
    return std::ranges::any_of(peers, [&](const auto &entry) {
        return entry.first != local && why_unfit(entry.first) == reason;
    });
}

std::map<NodeId, std::string> Known::nodes() const {
    std::map<NodeId, std::string> all = corosync.nodes;
    for (const auto &[node, peer] : peers) {
        all.try_emplace(node);
    }
    if (local != 0) {
        all.try_emplace(local);
    }
    return all;
}

std::string Known::name(NodeId node) const {
    const auto listed = corosync.nodes.find(node);
    const bool named = listed != corosync.nodes.end() && !listed->second.empty();
    return "node " + std::to_string(node) + (named ? " (" + listed->second + ")" : "");
}

std::string Known::frozen_text() const {
    return "mastership is frozen to " + name(current.frozen_node) + " (" + current.frozen_reason +
           ")";
}

void Known::change() {
    changed_at = now;
    wait_until_calm();
}

std::string seconds(Duration duration) {
    const auto tenths = (duration.count() + 50) / 100;
    const std::string part = tenths % 10 != 0 ? "." + std::to_string(tenths % 10) : "";
    return std::to_string(tenths / 10) + part + " s";
}

void Turn::prefer(bool on) {
    known.current.preferred = on;
    known.settling = false;
    known.wait_until_calm();
    world.write_preferred(on);
}

void Turn::mark(const std::string &unfit, const std::string &by) {
    known.stored.unfit = unfit;
    known.stored.unfit_by = by;
    world.store(known.stored);
}

} // namespace keeper
