#include "keeper/policy/keeper.h"

namespace keeper {

void Keeper::change() {
    known.changed_at = known.now;
    known.calm_at = std::max(known.calm_at, known.now + calm_after);
}

/* The daemon is gone, or is another one: nothing that was known of it holds. */
void Keeper::forget(bool daemon, bool ran_before) {
    known.daemon = daemon;
    known.ready = known.leaving = false;
    known.current = {};
    known.runner.reset(ran_before, known.now);
    known.peers.erase(known.local);
    for (auto &[node, peer] : known.peers) {
        peer.member = false;
    }
    change();
}

void Keeper::learn(const CorosyncRead &read) {
    known.corosync = read;
    known.local = read.local != 0 ? read.local : known.local;
}

void Keeper::learn(const UnitChanged &changed) {
    known.aborts += changed.aborted && !known.unit.aborted ? 1 : 0;
    known.unit = changed;
}

void Keeper::learn(const SnapshotRead &read) {
    known.ready = known.daemon;
    known.current = read.snapshot;
    known.local = read.snapshot.local_node;
}

void Keeper::learn(const Asked &asked) {
    const bool stop = std::holds_alternative<Asked::HandOver>(asked.what);
    known.leaving = known.leaving || (stop && known.ready);
}

void Keeper::learn(const NewMaster &applied) {
    known.master_changes += applied.node != known.current.master_node ? 1 : 0;
    known.current.master_node = applied.node;
    change();
}

void Keeper::learn(const FrozenMaster &frozen) {
    known.current.frozen_node = frozen.node;
    known.current.frozen_reason = frozen.node != 0 ? frozen.reason : "";
    change();
}

void Keeper::learn(const Joined &joined) {
    known.current.members = static_cast<int>(joined.members);
    change();
}

void Keeper::learn(const Left &left) {
    known.current.members = static_cast<int>(left.members);
    known.left_at = known.now;
    if (const auto peer = known.peers.find(left.node); peer != known.peers.end()) {
        peer->second.member = false;
    }
    change();
}

void Keeper::compare_masters() {
    const bool agree = std::ranges::all_of(known.peers, [&](const auto &entry) {
        return !known.present(entry.first) ||
               entry.second.report.master == known.current.master_node;
    });
    known.disagree_since =
        agree ? std::nullopt : std::optional(known.disagree_since.value_or(known.now));
}

Actions Keeper::handle(const Input &input, Time now) {
    known.now = now;
    Turn turn{.known = known, .input = input};
    std::visit([this](const auto &what) { learn(what); }, input);
    if (const auto *line = turn.get<client::Text>()) {
        view.receive(turn, line->text);
    }
    if (turn.said(Verb::settle) || turn.said(Verb::cleared)) {
        known.calm_at = std::max(known.calm_at, now + calm_after);
    }
    if (turn.get<DaemonAppeared>() != nullptr) {
        turn.act(ReadSnapshot{});
    }
    known.runner.take(turn);
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
    shown = publish(turn, freeze.warning);
    wake = turn.wake;

    Actions actions;
    for (const auto &item : turn.todo) {
        const auto *text = std::get_if<Text>(&item);
        actions.push_back(text != nullptr ? view.send(known, *text) : std::get<Action>(item));
    }
    return actions;
}

} // namespace keeper
