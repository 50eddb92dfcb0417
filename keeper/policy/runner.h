/*
 * The run steps of this node, followed from what the daemon announces. Its InTransition is of no
 * use: it is false while a remembered sequence runs.
 */
#pragma once

#include "keeper/policy/text.h"

#include <set>

namespace keeper {

struct Turn;

/* A sequence is over; one that waited for it has begun. */
struct SequenceEnd {
    bool start = false; /* the steps ran with "start" */
    bool known = false; /* it was seen from its beginning to its end */
    std::string failed; /* in words, such as "10-db.run failed with status 3"; empty: none has */
};

struct Runner {
    Steps steps;
    uint64_t failures = 0; /* steps that failed or could not run, since the keeper started */

    bool running() const { return steps.phase == Phase::running; }
    /* Another daemon, which has run no step unless it `ran_before`; or none. */
    void reset(bool ran_before, Time now);
    /* Leaves Turn::end, and asks for the run directory when a sequence begins. */
    void take(Turn &turn);

private:
    void begin(Turn &turn, bool as_start);
    void take_step(Turn &turn, const std::string &path, const std::string &action, bool begins);
    void end(Turn &turn);

    bool start = false;             /* the role of the sequence that runs */
    bool partial = false;           /* its beginning was not seen */
    std::optional<bool> pending;    /* the role that waits */
    std::set<std::string> begun;    /* paths */
    Steps failed;                   /* the first step that did, if any */
    std::optional<uint32_t> errors; /* the sequence is over, with so many as the daemon counts */
    std::optional<std::vector<std::string>> directory; /* as it was at the beginning */
};

} // namespace keeper
