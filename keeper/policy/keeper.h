/*
 * The keeper without its edges: all policies together. Pure: what it does depends on the inputs and
 * their times only, so that a test plays a night in a moment.
 */
#pragma once

#include "keeper/policy/policies.h"

namespace keeper {

class Keeper {
public:
    Keeper(Config config, World &world_) : world(world_) { known.config = std::move(config); }

    /* `now` never goes back from one input to the next. */
    void handle(const Input &input, Time now);
    /* When to give the next Tick if nothing else happens before; asked for after each input. */
    std::optional<Time> next_wake() const { return wake; }
    /* What is found after the last input. */
    const Known &state() const { return known; }
    const Verdict &judgement() const { return verdict; }
    const std::string &freeze_changed() const { return freeze.warning; }

private:
    World &world;
    Known known;
    View view;
    Runner runner;
    QuorumGuard quorum;
    Stall stall;
    Freeze freeze;
    Start start;
    Watch watch;
    Move move;
    Stay stay;
    Verdict verdict;
    std::optional<Time> wake;
};

} // namespace keeper
