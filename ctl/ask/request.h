/* What the operator's requests have in common: ask, say what was asked or why it was refused, and
   wait for the effect when told to. */
#pragma once

#include "ctl/ask/bus.h"
#include "ctl/ask/settle.h"

#include <functional>
#include <optional>
#include <string>

namespace ctl {

struct Request {
    /* Why the request would be pointless or harmful in this state, with what to do instead; empty
       to go ahead. May be null. */
    std::function<std::string(const client::Snapshot &)> objection;
    /* Asks the daemon; false when it refuses. */
    std::function<Result<bool>(Bus &)> ask;
    /* What was asked, in words. */
    std::function<std::string(const client::Snapshot &)> asked;
    /* The announcement in which the effect shows; null when the answer is the effect. */
    std::function<bool(const client::Announcement &, const client::Snapshot &before)> effect;
    /* Whether an election follows in this state. May be null. */
    std::function<bool(const client::Snapshot &before)> election;
    /* How it came out, in words, once all is done; false when it did not come out as asked. */
    std::function<bool(const client::Snapshot &after)> holds;
    /* The command is refused while mastership is frozen. */
    bool needs_no_freeze = false;
};

/* Carries `request` out and, with `wait`, waits so many seconds for its effect. Returns the exit
   status. */
int carry_out(const Request &request, std::optional<double> wait);

} // namespace ctl
