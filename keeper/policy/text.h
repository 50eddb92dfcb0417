/*
 * The texts that keepers send each other through the daemon's SendMessage:
 *
 *     duskvale-keeper 1 NODE BOOT SEQUENCE FIELD ...
 *
 * The daemon's signal does not name the sender of a text, so the text does. BOOT differs at each
 * start of a keeper, SEQUENCE grows by one with each text; a text that is sent again has the same
 * ones. The fields are those of the structures below, in their order: numbers, 0 or 1, and texts in
 * double quotes. A reader ignores other versions.
 */
#pragma once

#include "keeper/policy/types.h"

namespace keeper {

/* What a node's run steps are doing; word() gives the words of NodeStatus::steps. */
enum class Phase {
    unknown,
    none, /* the daemon has not applied a master yet */
    running,
    settled,
    failed,
    not_runnable,
    stopping,
    stopped,
    stop_failed,
    last = stop_failed
};
const char *word(Phase phase);

struct Steps {
    Phase phase = Phase::unknown;
    std::string step = {}; /* the name of the one that runs, failed or cannot run */
    int status = 0;        /* the wait status of the one that failed */
    Time since{};          /* as an age on its way */
    bool operator==(const Steps &) const = default;
};

/* What a keeper says of its node, in each text. */
struct Report {
    NodeId master = {};
    NodeId frozen = {};
    Steps steps;
    NodeStatus::Quorum quorum = NodeStatus::Quorum::unknown;
    std::string unfit;      /* the reason of the mark; empty: not marked */
    bool leaving = false;   /* its daemon is being stopped */
    bool wanted = false;    /* preferred by the operator */
    bool preferred = false; /* the daemon's PreferredMaster */
    bool stay = false;      /* takes part in stay */
    bool operator==(const Report &) const = default;
};

/* What it says besides. */
enum class Verb {
    report,  /* nothing: on each change, and every 10 s */
    hello,   /* the others shall report */
    settle,  /* the master asks the others to clear their preference */
    cleared, /* the answer to settle `number`; `wrote`: the preference was set until now */
    move,    /* asks `node` to take over, because of `why` */
    done,    /* the target's word on move `number` of `node`; `reason`: why it does not take over */
    last = done
};
enum class Why { asked, leaving, unfit, again, last = again };

struct Text {
    NodeId from = {};
    std::string boot = {};
    uint64_t sequence = 0;
    Verb verb = Verb::report;
    NodeId node = {};
    uint64_t number = 0;
    bool wrote = false;
    Why why = Why::asked;
    std::string reason = {};
    Report report = {};
};

/* `now` turns points of time into ages and back. */
std::string encode(Text text, Time now);
/* Nothing for what is not a keeper's text of this version. */
std::optional<Text> decode(const std::string &line, Time now);

} // namespace keeper
