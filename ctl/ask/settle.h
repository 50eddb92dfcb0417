/* Waiting until a request has taken effect, or the cluster has come to rest. */
#pragma once

#include "ctl/ask/bus.h"

#include <functional>
#include <string>

namespace ctl {

/*
 * An election whose winner is the master already is not announced, so nothing says that it is
 * over. It ends 500 ms after its last start; twice that without news is taken for its end.
 */
constexpr double election_rest_s = 1;

struct Settling {
    bool in_time = true; /* false: the deadline came first */
    bool effect_seen = false;
    bool steps_running = false; /* of this node */
    client::Snapshot last;      /* the state at the end; the last one read when there is none */
    unsigned steps = 0;         /* run steps that ended while waiting */
    unsigned failed = 0;        /* those of them that failed */
    std::string step;           /* the path of the step still running, or "" */
};

struct SettleRequest {
    /* The announcement in which the effect shows; null when it has shown already. */
    std::function<bool(const client::Announcement &)> effect;
    /* Also wait for an election to pass. */
    bool election = false;
    Deadline deadline;
    /* Sees every announcement; null for none. */
    std::function<void(const News &)> watcher;
};

/*
 * Waits until the effect has shown, this node's run steps are done, and, where asked for, no
 * election is under way. Throws a Problem when the daemon or the bus is lost. `before` is the state
 * from before the request, read on the listening `bus`.
 */
Settling settle(Bus &bus, const client::Snapshot &before, const SettleRequest &request);

} // namespace ctl
