/* What all policies look at, and what they leave to be done. */
#pragma once

#include "keeper/policy/text.h"

#include <syslog.h>

#include <algorithm>
#include <deque>
#include <map>
#include <set>
#include <utility>

namespace keeper {

/* Take-overs wait this long after a change of master, membership or freeze and after a write of a
   preference. Within 500 ms of a write one was undone in 20 of 20 tries, and within 6 ms it can end
   daemons. And the others carry what a master gains by its writes only from its next sync on, up to
   a second later: with 700 ms the role was not with the last target after 94 of 399 chains of moves
   in the simulation, with 1.2 s after 1, and with a second write (see Move) after none. */
constexpr Duration calm_after{1'200};
/* How long a keeper's last text counts. */
constexpr Duration fresh_for{15'000};
/* The one reason against a node that passes by itself. */
constexpr const char *busy = "its run steps are running";

/* A node whose keeper was heard; this node is among them, as corosync delivered its own texts. */
struct Peer {
    Report report;
    Time heard{};
    bool member = false; /* it did not leave the group since */
};

/* A sequence of run steps is over; one that waited for it has begun. */
struct SequenceEnd {
    bool start = false; /* the steps ran with "start" */
    bool known = false; /* it was seen from its beginning to its end */
    std::string failed; /* in words, such as "10-db.run failed with status 3"; empty: none has */
};

struct Known {
    Time now{};
    Config config;
    NodeId local = {};
    Stored stored;
    std::string disk_problem; /* why the disk could not be read or written; empty: it could */

    Corosync corosync;
    UnitChanged unit;

    bool looked = false;      /* for the daemon, since the keeper started */
    bool daemon = false;      /* it is on the bus */
    bool ready = false;       /* and was read; `current` follows its signals from then on */
    client::Snapshot current; /* empty until then */
    Steps steps;              /* of this node; see Runner */
    bool leaving = false;     /* the daemon is about to be stopped */

    std::map<NodeId, Peer> peers;
    Request request; /* what this node asks for and the others have not heard yet */
    std::optional<Request>
        moving; /* what is under way; the same on all nodes: texts have one order */
    Time moving_since{};
    std::deque<Time> unfit_moves; /* away from nodes that could not serve, of late */
    std::string stay_off;         /* why stay does nothing; empty: it is at work */
    bool settling = false;        /* stay is about to write the preference of this node */

    Time left_at{-1'000'000}; /* the last leave */
    Time changed_at{};        /* the last change of master, membership or freeze */
    Time calm_at{};           /* not before then may a take-over be asked for */
    uint64_t failed_steps = 0, master_changes = 0, aborts = 0;

    bool master() const { return ready && current.master_node == local; }
    bool member(NodeId node) const {
        return node == local ? ready : peers.contains(node) && peers.at(node).member;
    }
    bool frozen() const { return current.frozen_node != 0; }
    bool running() const { return steps.phase == Phase::running; }

    /* What a node's keeper said last; of this node, what is known by now. */
    Report report(NodeId node) const;
    /* Whether its keeper was heard of late, and the node is a member. */
    bool present(NodeId node) const;
    /* Why the role must not be moved to this node; empty: it is fit. */
    std::string why_unfit(NodeId node) const;
    /* The fit node that a hand-over goes to: one that the operator prefers, or else the first. */
    NodeId best_other() const;
    bool some_other(const std::string &reason) const; /* has this reason against it */
    /* Those of the node list, with their names, and those whose keepers were heard. */
    std::map<NodeId, std::string> nodes() const;
    /* "node 2 (beta)", or "node 2" without a name in the node list. */
    std::string name(NodeId node) const;
    std::string frozen_text() const;

    /* Takes what the daemon announced, or that there is none, for a change. */
    void change();
    void wait_until_calm() { calm_at = std::max(calm_at, now + calm_after); }
};

/* "1.5 s" */
std::string seconds(Duration duration);

/* An input on its way through the policies, what was found in it, and what is to be done, in
   order. */
struct Turn {
    Known &known;
    World &world;
    const Input &input;
    std::optional<Text> text = {};       /* a keeper's, perhaps our own come back */
    Report before = {};                  /* what its sender had said until then */
    std::optional<SequenceEnd> end = {}; /* the run steps of this node are done */
    std::optional<Request> moved = {};   /* a move ended with this input, by whatever came of it */

    std::optional<Why> wanted = {}; /* a move that a policy wants; see Move */
    std::optional<Time> wake = {};  /* some policy waits for that time */

    void info(const std::string &line) { world.log(LOG_INFO, line); }
    void warn(const std::string &line) { world.log(LOG_WARNING, line); }
    void error(const std::string &line) { world.log(LOG_ERR, line); }
    template <typename T>
    const T *get() const {
        return std::get_if<T>(&input);
    }
    /* The call of our bus object, if it is this one. */
    const Asked *asked(Asked::What what) const {
        const auto *call = get<Asked>();
        return call != nullptr && call->what == what ? call : nullptr;
    }
    /* Whether `time` has come; if not, all policies are called again then. */
    bool due(Time time) {
        if (known.now < time) {
            wake = std::min(wake.value_or(time), time);
        }
        return known.now >= time;
    }
    /* These take effect at once, for the policies that follow. */
    void prefer(bool on);
    void mark(const std::string &unfit, const std::string &by);
};

} // namespace keeper
