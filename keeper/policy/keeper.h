/*
 * The keeper without its edges: all policies together. Pure: what it does depends on the inputs and
 * their times only, so that a test plays a night in a moment.
 */
#pragma once

#include "keeper/policy/policies.h"

namespace keeper {

class Keeper {
public:
    explicit Keeper(Config config) { known.config = std::move(config); }

    /* What to do, in this order. `now` never goes back from one input to the next. */
    Actions handle(const Input &input, Time now);
    /* When to give the next Tick if nothing else happens before; asked for after each input. */
    std::optional<Time> next_wake() const { return wake; }
    /* What is known after the last input. It compares equal while nothing has changed. */
    const Published &published() const { return shown; }

private:
    /* What an input tells of the world; the rest is left to the policies. */
    void learn(const auto &) {}
    void learn(const DiskRead &disk) {
        known.stored = disk.stored;
        known.disk_problem = disk.problem;
    }
    void learn(const DiskWritten &disk) { known.disk_problem = disk.problem; }
    void learn(const QuorumChanged &changed) { known.quorum = changed; }
    void learn(const CorosyncRead &read);
    void learn(const UnitChanged &changed);
    void learn(const DaemonAppeared &appeared) { forget(true, appeared.ran_before); }
    void learn(const DaemonVanished &) { forget(false, true); }
    void learn(const SnapshotRead &read);
    void learn(const Asked &asked);
    void learn(const Announced &announced) {
        std::visit([this](const auto &what) { learn(what); }, announced.announcement);
    }
    void learn(const NewMaster &applied);
    void learn(const FrozenMaster &frozen);
    void learn(const Joined &joined);
    void learn(const Left &left);
    void change();
    void forget(bool daemon, bool ran_before);
    void compare_masters();

    Known known;
    View view;
    QuorumGuard quorum;
    Stall stall;
    Freeze freeze;
    Start start;
    Watch watch;
    Move move;
    Stay stay;
    Published shown;
    std::optional<Time> wake;
};

} // namespace keeper
