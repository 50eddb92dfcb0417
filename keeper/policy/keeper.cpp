#include "keeper/policy/keeper.h"

#include "keeper/policy/policies.h"

namespace keeper {

struct Keeper::Machine {
    Known known;
    View view;
    QuorumGuard quorum;
    Stall stall;
    Freeze freeze;
    Start start;
    Watch watch;
    Move move;
    Stay stay;
    Published published;
    std::optional<Time> wake;

    Actions handle(const Input &input, Time now);

private:
    /* What an input tells; the others are left to the policies. */
    void learn(const auto &) {}
    void learn(const DiskRead &disk) {
        known.stored = disk.stored;
        known.disk_problem = disk.problem;
    }
    void learn(const DiskWritten &disk) { known.disk_problem = disk.problem; }
    void learn(const QuorumChanged &changed) { known.quorum = changed; }
    void learn(const CorosyncRead &read) {
        known.corosync = read;
        known.local = read.local != 0 ? read.local : known.local;
    }
    void learn(const UnitChanged &unit) {
        known.aborts += unit.aborted && !known.unit.aborted ? 1 : 0;
        known.unit = unit;
    }
    void learn(const DaemonAppeared &appeared) { forget(true, appeared.ran_before); }
    void learn(const DaemonVanished &) { forget(false, true); }
    void learn(const SnapshotRead &read) {
        known.ready = known.daemon;
        known.current = read.snapshot;
        known.local = read.snapshot.local_node;
    }
    void learn(const Asked &asked) {
        const bool stop = std::holds_alternative<Asked::HandOver>(asked.what);
        known.leaving = known.leaving || (stop && known.ready);
    }
    void learn(const Announced &announced) {
        std::visit([this](const auto &what) { learn(what); }, announced.announcement);
    }
    void learn(const NewMaster &applied) {
        known.master_changes += applied.node != known.current.master_node ? 1 : 0;
        known.current.master_node = applied.node;
        change(calm_after_write);
    }
    void learn(const FrozenMaster &frozen) {
        known.current.frozen_node = frozen.node;
        known.current.frozen_reason = frozen.node != 0 ? frozen.reason : "";
        change(calm_after_change);
    }
    void learn(const Joined &joined) {
        known.current.members = static_cast<int>(joined.members);
        change(calm_after_change);
    }
    void learn(const Left &left) {
        known.current.members = static_cast<int>(left.members);
        known.left_at = known.now;
        if (const auto peer = known.peers.find(left.node); peer != known.peers.end()) {
            peer->second.member = false;
        }
        change(calm_after_change);
    }

    void change(Duration calm) {
        known.changed_at = known.now;
        known.calm_at = std::max(known.calm_at, known.now + calm);
    }
    void forget(bool daemon, bool ran_before);
    void compare_masters();
};

/* The daemon is gone, or is another one: nothing that was known of it holds. */
void Keeper::Machine::forget(bool daemon, bool ran_before) {
    known.daemon = daemon;
    known.ready = known.leaving = false;
    known.current = {};
    known.runner.reset(ran_before, known.now);
    known.peers.erase(known.local);
    for (auto &[node, peer] : known.peers) {
        peer.member = false;
    }
    change(calm_after_change);
}

void Keeper::Machine::compare_masters() {
    const bool agree = std::ranges::all_of(known.peers, [&](const auto &entry) {
        return !known.present(entry.first) ||
               entry.second.report.master == known.current.master_node;
    });
    known.disagree_since = agree                  ? std::nullopt
                           : known.disagree_since ? known.disagree_since
                                                  : std::optional(known.now);
}

Actions Keeper::Machine::handle(const Input &input, Time now) {
    known.now = now;
    Turn turn{.known = known, .input = input};
    std::visit([this](const auto &what) { learn(what); }, input);
    if (const auto *line = turn.get<client::Text>()) {
        turn.text = view.receive(known, line->text);
    }
    if (turn.get<Settle>() != nullptr || turn.get<Cleared>() != nullptr) {
        known.calm_at = std::max(known.calm_at, now + calm_after_write);
    }
    if (turn.get<DaemonAppeared>() != nullptr) {
        turn.act(ReadSnapshot{});
    }
    const uint64_t sequences = known.runner.sequences;
    turn.end = known.runner.follow(input, known.local, now);
    if (known.runner.sequences != sequences) {
        turn.act(ReadRunDirectory{});
    }
    if (!known.daemon) {
        known.runner.follow_unit(known.unit.stop_steps, now);
    }
    Move::follow(turn);
    known.stay_off = Stay::why_off(known);
    compare_masters();

    quorum.take(turn);
    stall.take(turn);
    freeze.take(turn);
    start.take(turn);
    watch.take(turn);
    take_preference(turn);
    move.take(turn);
    stay.take(turn);
    view.take(turn);
    published = publish(turn, freeze.warning);
    wake = turn.wake;

    Actions actions;
    for (const auto &item : turn.todo) {
        const auto *said = std::get_if<Content>(&item);
        actions.push_back(said != nullptr ? Action(view.send(known, *said))
                                          : std::get<Action>(item));
    }
    return actions;
}

Keeper::Keeper(Config config) : machine(std::make_unique<Machine>()) {
    machine->known.config = std::move(config);
}

Keeper::~Keeper() = default;

Actions Keeper::handle(const Input &input, Time now) {
    return machine->handle(input, now);
}

std::optional<Time> Keeper::next_wake() const {
    return machine->wake;
}

const Published &Keeper::published() const {
    return machine->published;
}

} // namespace keeper
