#include "keeper/policy/policies.h"

namespace keeper {

constexpr Duration send_every{1'000}, send_missing_every{400};
/* From then on more are sent, since corosync may have refused one, and the bus is asked, too. At
   rest that would wake everybody for nothing. */
constexpr Duration missing_after{1'300};
/* Longest gaps in sound clusters: 0.12 s at rest, 1.7 s when a peer's corosync was killed, 2.3 s
   after a cut, where token + consensus was 2.2 s. */
constexpr Duration beyond_corosync{400};
constexpr Duration held_up{500};

void Stall::take(Turn &turn) {
    const Known &known = turn.known;
    const Time now = known.now;
    if (!known.config.stall || !known.master()) {
        watching = false;
        return;
    }
    const auto *back = turn.get<client::KeepAlive>();
    if (!watching) {
        watching = true;
        sent_at = now - send_every;
        back_at = now;
    } else if (now >= due_at + held_up) {
        back_at = now;
    } else if (back != nullptr && back->node == known.local) {
        back_at = turn.get<Announced>()->at.value_or(now);
    }
    bus_at = turn.get<BusAnswered>() != nullptr ? now : bus_at;
    const bool missing = now >= back_at + missing_after;
    if (now >= sent_at + (missing ? send_missing_every : send_every)) {
        sent_at = now;
        turn.act(SendKeepAlive{});
        if (missing) {
            turn.act(PingBus{});
        }
    }
    const Duration limit = known.corosync.token + known.corosync.consensus +
                           known.corosync.device_sync + beyond_corosync;
    if (now >= back_at + limit && now < bus_at + held_up) {
        turn.fail("STALL: no keep-alive of this node came back for " + seconds(limit) +
                  ", the daemon or corosync hangs; ending the daemon (process " +
                  std::to_string(known.unit.main_pid) + ")");
        turn.act(KillDaemon{known.unit.main_pid});
        back_at = now;
    }
    due_at = sent_at + (missing ? send_missing_every : send_every);
    due_at = now < back_at + limit ? std::min(due_at, back_at + limit) : due_at;
    turn.due(due_at);
}

} // namespace keeper
