/* What belongs together in the daemon's log: one change, with what led to it and what followed. */
#pragma once

#include "ctl/log/event.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace ctl {

enum class EpisodeKind {
    mastership, /* a master was applied, or an election confirmed the one there was */
    membership, /* a node came or went while mastership was frozen */
    freeze,
    refusal, /* of a request */
    device,
    steps,  /* whose role change lies before the log's beginning */
    daemon, /* it started or ended */
    trouble,
};

struct Step {
    std::string path;
    bool starting = false; /* with "start", for the master */
    int64_t child = 0;
    std::optional<int64_t> began;
    std::optional<int64_t> ended;
    std::optional<int64_t> status; /* the wait status; none when the log does not show its end */
};

struct Episode {
    EpisodeKind kind = EpisodeKind::trouble;
    std::vector<Event> events; /* all, in the order of the log */

    /* Of a mastership episode. */
    uint32_t master = 0;         /* after it; 0 when it came to no result */
    uint32_t previous = 0;       /* before it; 0 when the log does not tell */
    bool applied = false;        /* false when the master only stayed */
    bool local = false;          /* this node is the master after it */
    bool role_changed = false;   /* this node's role did, or was not known before */
    bool after_start = false;    /* the first since this node's daemon started */
    bool was_frozen = false;     /* mastership was frozen when it began */
    bool lifted_by_join = false; /* a node that joined without the freeze lifted it */

    /* Of any that run steps belong to. */
    std::vector<Step> steps;
    std::optional<int64_t> failed_steps; /* none when the log does not show that they were done */

    bool changes_master() const { return applied && (master != previous || role_changed); }
    std::optional<int64_t> begin() const;
};

/* What led to a mastership episode, as far as the log supports it. */
enum class Cause {
    unknown,
    start,         /* this node's daemon joined */
    joined,        /* `nodes` is the node that did, or all members, when the log does not name it */
    left,          /* `nodes` did */
    unfrozen,      /* `nodes` lifted the freeze */
    give_back,     /* `nodes` gave it back */
    frozen_return, /* `nodes`, to which mastership is frozen, came back */
    election,      /* for a reason that the log does not name */
    request,       /* without an election: a node was asked to take over */
};

struct CauseFound {
    Cause cause = Cause::unknown;
    std::vector<uint32_t> nodes;
};

CauseFound cause_of(const Episode &episode);

/* The proposals that counted in the episode's last election, one of each node, in the order of
   their delivery. Only debug lines tell them. */
std::vector<const Event *> counted_proposals(const Episode &episode);

/* Gathers events into episodes, one after another. */
class EpisodeBuilder {
public:
    void add(const Event &event);
    const std::vector<Episode> &episodes() const { return list; }

private:
    using Place = std::optional<std::size_t>;

    Episode &open(EpisodeKind kind, const Event &event);
    Episode &continue_or_open(EpisodeKind kind, const Event &event);
    Episode &mastership(const Event &event);
    Episode &result_of(const Event &event);
    bool follows(const Place &place, const Event &event) const;
    void forget();

    void take_life(const Event &event);
    void take_membership(const Event &event);
    void take_freeze(const Event &event);
    void take_unfrozen(const Event &event);
    void take_decision(const Event &event);
    void take_applied(const Event &event);
    void take_step(const Event &event);
    void take_trouble(const Event &event);

    std::vector<Episode> list;
    Place current;        /* the mastership episode under way, */
    bool settled = false; /* and whether it has come to its result */
    Place running;        /* the episode whose run steps run */
    Place remembered;     /* the one whose run steps wait for the end of these */
    bool after_start = false;
    uint32_t master = 0;
    std::optional<bool> is_master;
    std::optional<int64_t> frozen; /* none while the log has not told */
    std::optional<Event> joined_while_frozen;
};

} // namespace ctl
