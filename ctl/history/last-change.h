/* The last change of this node's master, and what led to it. */
#pragma once

#include "ctl/history/journal.h"

#include <optional>
#include <string>
#include <vector>

namespace ctl {

struct Sentence {
    Stamp time;
    std::string text; /* without its full stop; safe for a terminal */
};

struct LastChange {
    NodeId master = 0; /* 0: this node knows none */
    NodeId before = 0; /* the one until then; 0: the records do not say */
    /* For how long this node knew no master until then; no value where the records do not say. */
    std::optional<int64_t> without_us;
    std::vector<Sentence> sentences; /* one or two: what led to it, what followed */
    bool complete = false;           /* older records could add nothing */
};

/* States what the records prove, and names what else it may have been. No value when they hold no
   change. */
std::optional<LastChange> find_last_change(const Reading &reading);

} // namespace ctl
