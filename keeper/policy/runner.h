/*
 * The run steps of this node, followed from what the daemon announces. Its InTransition is of no
 * use: it is false while a remembered sequence runs.
 */
#pragma once

#include "keeper/policy/text.h"

#include <set>

namespace keeper {

/* A sequence is over; one that waited for it has begun. */
struct SequenceEnd {
    bool start = false; /* the steps ran with "start" */
    bool known = false; /* it was seen from its beginning to its end */
    std::string failed; /* in words, such as "10-db.run failed with status 3"; empty: none has */
};

struct Runner {
    Steps steps;
    uint64_t failures = 0;  /* steps that failed or could not run, since the keeper started */
    uint64_t sequences = 0; /* how many have begun: with each, the run directory is to be read */

    bool running() const { return steps.phase == Phase::running; }

    /* Another daemon, which has run no step unless it `ran_before`; or none. */
    void reset(bool ran_before, Time now);
    /* While there is no daemon. */
    void follow_unit(UnitChanged::StopSteps stop_steps, Time now);
    std::optional<SequenceEnd> follow(const Input &input, NodeId local, Time now);

private:
    void begin(bool as_start, Time now);
    void follow_step(const std::string &step, const std::string &action, bool begins, Time now);
    SequenceEnd end(Time now);

    bool start = false;          /* the role of the sequence that runs */
    bool partial = false;        /* its beginning was not seen */
    std::optional<bool> pending; /* the role that waits */
    std::set<std::string> begun; /* paths */
    std::string failed_step;     /* the first one */
    int failed_status = 0;
    std::optional<uint32_t> errors; /* the sequence is over, with so many as the daemon counts */
    std::optional<std::vector<std::string>> directory; /* read when the sequence began */
};

} // namespace keeper
