/*
 * The keeper without its edges: all policies together. Pure: what it does depends on the inputs and
 * their times only, so that a test plays a night in a moment.
 */
#pragma once

#include "keeper/policy/types.h"

#include <memory>

namespace keeper {

class Keeper {
public:
    explicit Keeper(Config config);
    ~Keeper();
    Keeper(const Keeper &) = delete;
    Keeper &operator=(const Keeper &) = delete;

    /* What to do, in this order. `now` never goes back from one input to the next. */
    Actions handle(const Input &input, Time now);
    /* When to give the next Tick if nothing else happens before; asked for after each input. */
    std::optional<Time> next_wake() const;
    /* What is known after the last input. It compares equal while nothing has changed. */
    const Published &published() const;

private:
    struct Machine;
    std::unique_ptr<Machine> machine;
};

} // namespace keeper
