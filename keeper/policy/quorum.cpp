#include "keeper/policy/policies.h"

namespace keeper {

/* systemd was asked, and the process is still there. */
constexpr Duration again_after{1'000};
/* With two votes there is no majority without the other node. */
constexpr unsigned least_votes = 3;

std::string QuorumGuard::why_off(const Config &config, const Corosync &corosync) {
    return config.quorum == Switch::off ? "it is switched off in keeper.conf"
           : !corosync.votequorum       ? "corosync has no votequorum"
           : config.quorum == Switch::on || corosync.tie_breaker ? ""
           : corosync.two_node            ? "with two_node both sides of a cut have quorum"
           : corosync.votes < least_votes ? "there are fewer than three votes"
                                          : "";
}

void QuorumGuard::take(Turn &turn) {
    const Known &known = turn.known;
    const uint32_t process = known.unit.main_pid;
    if (process == 0 || !known.corosync.connected || known.corosync.quorate ||
        !why_off(known.config, known.corosync).empty()) {
        killed = 0;
        return;
    }
    if (killed != process) {
        turn.warn("QUORUM: lost; ending the daemon (process " + std::to_string(process) +
                  "), so that its unit runs the steps with stop and waits for quorum");
    }
    if (killed != process || turn.due(killed_at + again_after)) {
        killed = process;
        killed_at = known.now;
        turn.world.kill_daemon();
        turn.due(killed_at + again_after);
    }
}

} // namespace keeper
