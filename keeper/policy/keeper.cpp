#include "keeper/policy/keeper.h"

namespace keeper {

/* The daemon is gone, or is another one: nothing that was known of it holds. */
static void forget(Known &known, bool daemon) {
    known.daemon = daemon;
    known.ready = known.leaving = false;
    known.current = {};
    known.peers.erase(known.local);
    for (auto &[node, peer] : known.peers) {
        peer.member = false;
    }
    known.change();
}

/* What the daemon says of the group. */
static void follow_daemon(Turn &turn) {
    Known &known = turn.known;
    client::Snapshot &current = known.current;
    if (const auto *read = turn.get<SnapshotRead>()) {
        known.ready = known.daemon;
        known.local = read->local_node;
        current = *read;
        return;
    }
    if (const auto *applied = turn.get<NewMaster>()) {
        known.master_changes += applied->node != current.master_node ? 1 : 0;
        current.master_node = applied->node;
    } else if (const auto *frozen = turn.get<FrozenMaster>()) {
        current.frozen_node = frozen->node;
        current.frozen_reason = frozen->node != 0 ? frozen->reason : "";
    } else if (const auto *joined = turn.get<Joined>()) {
        current.members = static_cast<int>(joined->members);
    } else if (const auto *left = turn.get<Left>()) {
        current.members = static_cast<int>(left->members);
        known.left_at = known.now;
        if (const auto peer = known.peers.find(left->node); peer != known.peers.end()) {
            peer->second.member = false;
        }
    } else {
        return;
    }
    known.change();
}

static void follow_disk(Turn &turn, const std::string &problem) {
    if (!problem.empty() && problem != turn.known.disk_problem) {
        turn.error("DISK: what this node shall remember was not read or written: " + problem);
    }
    turn.known.disk_problem = problem;
}

static void learn(Turn &turn) {
    Known &known = turn.known;
    if (const auto *read = turn.get<DiskRead>()) {
        known.stored = read->stored;
        follow_disk(turn, read->problem);
    } else if (const auto *written = turn.get<DiskWritten>()) {
        follow_disk(turn, written->problem);
    } else if (const auto *corosync = turn.get<Corosync>()) {
        known.corosync = *corosync;
        known.local = corosync->local != 0 ? corosync->local : known.local;
    } else if (const auto *unit = turn.get<UnitChanged>()) {
        known.aborts += unit->aborted && !known.unit.aborted ? 1 : 0;
        known.unit = *unit;
    } else if (turn.get<DaemonVanished>() != nullptr) {
        forget(known, false);
    } else if (turn.get<DaemonAppeared>() != nullptr) {
        forget(known, true);
        turn.world.read_snapshot();
    } else if (turn.asked(Asked::hand_over) != nullptr) {
        known.leaving = known.leaving || known.ready;
    }
    follow_daemon(turn);
}

void Keeper::handle(const Input &input, Time now) {
    known.now = now;
    Turn turn{.known = known, .world = world, .input = input};
    learn(turn);
    view.receive(turn);
    runner.take(turn);
    known.looked = known.looked || turn.get<DaemonAppeared>() || turn.get<DaemonVanished>();
    Move::follow(turn);
    known.stay_off = Stay::why_off(known);

    quorum.take(turn);
    stall.take(turn);
    freeze.take(turn);
    start.take(turn);
    watch.take(turn);
    take_preference(turn);
    take_settings(turn);
    move.take(turn);
    stay.take(turn);
    view.take(turn);
    verdict = judge(turn, freeze.warning);
    wake = turn.wake;
}

} // namespace keeper
