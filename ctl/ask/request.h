/* What the operator's requests have in common: ask, say what was asked or why it was refused, and
   wait for the effect where that is wanted. Each throws a Problem when the daemon or the bus is
   lost. */
#pragma once

#include "ctl/ask/settle.h"
#include "ctl/ask/stored-setting.h"

#include <functional>
#include <optional>
#include <string>

namespace ctl {

struct Request {
    client::Call call;
    /* What was asked, in words. */
    std::function<std::string(const client::Snapshot &before)> asked;
    /* Whether it came out as asked, once all is done. */
    std::function<bool(const client::Snapshot &after)> holds;
    /* The announcement in which the effect shows; null when the answer is the effect. */
    std::function<bool(const client::Announcement &, const client::Snapshot &before)> effect = {};
    /* Whether an election follows in this state; null when none does. */
    std::function<bool(const client::Snapshot &before)> election = {};
    /* Why the request would be pointless or harmful in this state, with what to do instead; empty
       to go ahead. May be null. */
    std::function<std::string(const client::Snapshot &before)> objection = {};
    /* The daemon refuses it while mastership is frozen. */
    bool needs_no_freeze = false;
    /* The file in which this node's daemon stores the result, and whether it does; may be null. */
    const char *stored_in = nullptr;
    std::function<bool(const StoredSetting &)> is_stored = {};
    /* The call to the keeper of this node that does it better; none: ask the daemon. May be null.
     */
    std::function<std::optional<client::Call>(const client::Snapshot &before,
                                              const client::KeeperState &keeper)>
        by_keeper = {};
    /* What the journal of this node notes before the daemon is asked, such as "prefer on". */
    std::string name = {};
};

/* Carries `request` out and, with `wait`, waits so many seconds for its effect. Returns the exit
   status. */
int carry_out(const Request &request, std::optional<double> wait);

/* What to do where the keeper was there a moment ago. */
inline constexpr const char *ask_again = "ask again";

/* Asks the keeper of this node, prints its answer, and says what to do where there is none:
   `without`. `name` is as in Request. Returns the exit status. */
int ask_keeper(Bus &bus, const std::string &name, const client::Call &call, const char *without);

/* Makes a call that is never refused, then prints `done`. Returns the exit status. */
int send_call(const client::Call &call, const std::string &done);

} // namespace ctl
