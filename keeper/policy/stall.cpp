#include "keeper/policy/policies.h"

namespace keeper {

/* Corosync refuses a keep-alive now and then: while one is missing, more are sent. */
constexpr Duration send_every{1'000}, send_missing_every{400};
/* In a sound cluster one comes back within 0.12 s, or when corosync has formed a ring without a
   node that was lost: that takes it token + consensus, and then the next keep-alive needs to be
   sent. */
constexpr Duration beyond_corosync{400};
constexpr Duration held_up{500};

void Stall::take(Turn &turn) {
    const Known &known = turn.known;
    const Time now = known.now;
    if (!known.config.stall || !known.master()) {
        *this = {};
        return;
    }
    const auto *back = turn.get<KeepAlive>();
    if (back != nullptr && back->node == known.local) {
        missing_since.reset();
    } else if (missing_since && (now >= due_at + held_up || turn.get<Corosync>() != nullptr)) {
        missing_since = now; /* we were held up ourselves, or corosync goes on with a new ring */
    }
    bus_at = turn.get<BusAnswered>() != nullptr ? now : bus_at;
    const bool missing = missing_since && now >= *missing_since + send_every;
    const Duration pause = missing ? send_missing_every : send_every;
    if (now >= sent_at + pause) {
        sent_at = now;
        missing_since = missing_since.value_or(now);
        turn.world.send_keep_alive();
        if (missing) {
            turn.world.ping_bus();
        }
    }
    const Duration limit = known.corosync.token + known.corosync.consensus +
                           known.corosync.device_sync + beyond_corosync;
    due_at = sent_at + pause;
    if (missing && turn.due(*missing_since + limit) && now < bus_at + held_up) {
        turn.error("STALL: no keep-alive of this node came back for " + seconds(limit) +
                   ", the daemon or corosync hangs; ending the daemon (process " +
                   std::to_string(known.unit.main_pid) + ")");
        turn.world.kill_daemon();
        missing_since = now;
    } else if (missing) {
        due_at = std::min(due_at, *missing_since + limit);
    }
    turn.due(due_at);
}

} // namespace keeper
