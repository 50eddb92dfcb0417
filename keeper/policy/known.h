/* What all policies look at, and what they leave to be done. */
#pragma once

#include "keeper/policy/runner.h"

#include <algorithm>
#include <deque>
#include <map>
#include <utility>

namespace keeper {

using client::FrozenMaster;
using client::Joined;
using client::Left;
using client::NewMaster;

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

/* A move, and who asked for it. */
struct Moving {
    NodeId by = {};
    uint64_t number = 0;
    NodeId target = {};
    Why why = Why::asked;
    Time since{};
};

struct Known {
    Time now{};
    Config config;
    NodeId local = {};
    Stored stored;
    std::string disk_problem; /* why the disk could not be read or written; empty: it could */

    QuorumChanged quorum;
    CorosyncRead corosync;
    UnitChanged unit;

    bool daemon = false;      /* it is on the bus */
    bool ready = false;       /* and was read; `current` follows its signals from then on */
    client::Snapshot current; /* empty until then */
    Runner runner;
    bool leaving = false; /* the daemon is about to be stopped */

    std::map<NodeId, Peer> peers;
    std::optional<Moving> moving; /* the same on all nodes, since texts arrive in one order */
    std::deque<Time> unfit_moves; /* away from nodes that could not serve, of late */
    std::string stay_off;         /* why stay does nothing; empty: it is at work */

    Time left_at{-1'000'000};           /* the last leave */
    Time changed_at{};                  /* the last change of master, membership or freeze */
    Time calm_at{};                     /* not before then may a take-over be asked for */
    std::optional<Time> disagree_since; /* the members name different masters */
    uint64_t master_changes = 0, aborts = 0;

    bool master() const { return ready && current.master_node == local; }
    bool frozen() const { return current.frozen_node != 0; }

    /* What a node's keeper said last; of this node, what is known by now. */
    Report report(NodeId node) const;
    /* Whether its keeper was heard of late, and the node is a member. */
    bool present(NodeId node) const;
    /* Why the role must not be moved to this node; empty: it is fit. */
    std::string why_unfit(NodeId node) const;
    /* The fit node that a hand-over goes to: one that the operator prefers, or else the first. */
    NodeId best_other() const;
    /* "node 2 (beta)", or "node 2" without a name in the node list. */
    std::string name(NodeId node) const;
    std::string frozen_text() const;
};

/* "1.5 s" */
std::string seconds(Duration duration);

template <typename T, typename Variant>
constexpr bool is_one_of = false;
template <typename T, typename... Types>
constexpr bool is_one_of<T, std::variant<Types...>> = (std::is_same_v<T, Types> || ...);

/* An input on its way through the policies, what was found in it, and what is to be done, in
   order. */
struct Turn {
    Known &known;
    const Input &input;
    std::optional<Text> text = {};       /* a keeper's, perhaps our own come back */
    std::optional<SequenceEnd> end = {}; /* the run steps of this node are done */
    std::optional<Moving> moved = {};    /* a move ended with this input, by whatever came of it */

    std::vector<std::variant<Action, Text>> todo = {};
    std::optional<Why> wanted = {}; /* a move that a policy wants; see Move */
    std::optional<Time> wake = {};  /* some policy waits for that time */

    /* An input, an announcement, or a call of our bus object, of this type. */
    template <typename T>
    const T *get() const {
        if constexpr (is_one_of<T, Input>) {
            return std::get_if<T>(&input);
        } else if constexpr (is_one_of<T, client::Announcement>) {
            const auto *announced = std::get_if<Announced>(&input);
            return announced != nullptr ? std::get_if<T>(&announced->announcement) : nullptr;
        } else {
            const auto *asked = std::get_if<Asked>(&input);
            return asked != nullptr ? std::get_if<T>(&asked->what) : nullptr;
        }
    }
    bool said(Verb verb) const { return text && text->verb == verb; }
    bool own_text() const { return text && text->from == known.local; }

    void act(Action action) { todo.emplace_back(std::in_place_index<0>, std::move(action)); }
    void say(Text what) { todo.emplace_back(std::in_place_index<1>, std::move(what)); }
    void info(std::string line) { act(Log{Log::Priority::info, std::move(line)}); }
    void warn(std::string line) { act(Log{Log::Priority::warning, std::move(line)}); }
    void fail(std::string line) { act(Log{Log::Priority::error, std::move(line)}); }
    void answer(bool ok, std::string why) {
        act(Answer{std::get<Asked>(input).id, ok, std::move(why)});
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
    void mark(std::optional<Unfit> unfit);
};

} // namespace keeper
