#include "ctl/history/last-change.h"

#include "ctl/history/sentence.h"

#include <glib.h>

#include <cstring>
#include <set>

namespace ctl {

namespace {

/* An election period is 500 ms; refused messages and nodes that are held up make it longer. */
constexpr int64_t one_change_us = 10'000'000;
/* From a request to what comes of it. */
constexpr int64_t request_us = 5'000'000;
/* Several slaves may answer one give-back. */
constexpr int64_t give_back_us = 2'000'000;
/* A node's own election period may end so much later than the take-over of its winner, and the
   keeper may log a move so much later than the daemon. */
constexpr int64_t late_end_us = 1'000'000;

/* How the master was found. */
enum class Way {
    election,
    during_election, /* it took over while one ran, of which it may or may not be the winner */
    take_over,
    give_back,
    frozen_return, /* mastership is frozen to it, and it joined */
    kept,          /* by an election, after it was lost or this node was left alone */
};

/* The place of a record. */
using Place = std::optional<std::size_t>;

struct Change {
    Way way = Way::election;
    std::size_t at = 0;
    NodeId master = 0;
    NodeId before = 0;            /* the master until then; 0: not known */
    Place lost = {};              /* since when there was none */
    Place cause = {};             /* the first that may have led to it */
    Place request = {};           /* the last of an operator or of the keeper, of this node */
    Place ended_by = {};          /* the keeper's word of why it ended this node's daemon */
    std::string first_words = {}; /* of the first, where its own do not say enough */
    std::string later = {};       /* what else it took, each with " and " behind it */
    Place reunited = {};          /* nodes that had been apart met */
    bool preferred = false;       /* the master, as its election says */
    bool alone = false;           /* corosync has lost all other nodes */

    Place first() const { return lost ? lost : cause; }
};

/* Follows the records, called for the event of each, and words the last change. */
class Timeline {
public:
    explicit Timeline(const Reading &reading) : records(reading.records), local(reading.local) {}

    std::optional<LastChange> run() {
        for (now = 0; now < records.size(); now++) {
            std::visit(*this, records[now].event);
            boot = records[now].daemon != 0 ? records[now].time.boot : boot;
        }
        change = next.lost ? next : change; /* there is none since */
        if (!change) {
            return std::nullopt;
        }
        LastChange result{change->master, change->before, {}, {}, {}};
        const Place first = change->first();
        result.complete = first_start && *first_start < first.value_or(change->at);
        if (first) {
            result.sentences.push_back(
                {records[*first].time, cause(*first) + at(change->ended_by) + no_master()});
        }
        const bool known = change->lost ? !get<DaemonStarted>(*change->lost) : change->before != 0;
        if (change->master != 0) {
            if (known) {
                result.without_us = span(change->lost.value_or(change->at), change->at);
            }
            result.sentences.push_back(
                {records[change->at].time,
                 change->later + outcome() + gap(result.without_us) + at(change->request)});
        }
        return result;
    }

    void operator()(const DaemonStarted &) {
        end_daemon(); /* in case the journal does not have it */
        first_start = first_start.value_or(now);
        stopping.reset();
        if (next.lost != now) {
            next.later = "it started again" + and_at();
        } else if (!boot.empty() && boot != records[now].time.boot) {
            next.first_words = "this node's daemon started after this node booted";
        }
        ended = false;
        members.clear();
        frozen = 0;
        chosen.reset();
    }

    void operator()(const DaemonEnded &event) {
        if (event.how.ends_with("unit")) { /* it serves until the role is handed over */
            (ended && recent(next.lost, late_end_us) ? next.lost : stopping) = now;
        } else {
            end_daemon();
        }
    }
    void operator()(const MastersDisagree &) {
        end_daemon();
        next.reunited = reunited;
    }

    void operator()(const OperatorRequest &event) {
        /* A freeze moves nothing. */
        request = event.command.starts_with("freeze") ? request : now;
    }
    void operator()(const KeeperLine &event) {
        const char *text = event.text.c_str();
        const bool moves = std::strstr(text, "take over: ") || std::strstr(text, "taking over: ");
        /* It may hear of a move a moment after the daemon. */
        Place &asked = change && recent(change->at, late_end_us) ? change->request : request;
        asked = moves ? now : asked;
        const bool leaves = std::strstr(text, "asking") && std::strstr(text, "is being stopped");
        kill = leaves || std::strstr(text, "ending the daemon") ? now : kill;
    }

    void operator()(const Joined &event) {
        members.insert(event.node);
        in_force = recent(exchange) ? in_force : frozen;
        joiners.insert(event.node);
        exchange = now;
        reunited = event.reason == Reason::node_up ? now : reunited;
        add_cause();
        if (const auto *left = get<Left>(*next.first()); left && left->node == event.node) {
            next.later = "it joined again" + and_at();
        }
    }

    void operator()(const Left &event) {
        members.erase(event.node);
        add_cause();
        if (event.node == master) {
            lose_master();
        }
        next.alone = members == std::set{local} && event.reason == Reason::node_down;
    }

    void operator()(const StayedFrozen &event) {
        frozen = in_force = event.frozen;
        next.cause.reset();
    }

    /*
     * Each member reports what it holds to be frozen at each join, and when it is asked to. It
     * reports that nothing is frozen in spite of a freeze only when it is asked to or has joined
     * without having known of it.
     */
    void operator()(const FrozenMaster &event) {
        members.insert(event.sender);
        const bool answers = recent(exchange);
        in_force = answers ? in_force : frozen;
        if (event.node == 0 && in_force != 0) {
            const std::string how = answers && joiners.contains(event.sender)
                                        ? " joined without the freeze to "
                                        : " was asked to lift the freeze to ";
            const std::string text = name(event.sender) + how + name(in_force);
            (next.first() ? next.later : next.first_words) += next.first() ? text + and_at() : text;
        }
        joiners.erase(event.sender);
        if (event.node == 0 && (in_force != 0 || !answers)) {
            add_cause();
            in_force = 0;
        }
        frozen = event.node;
    }

    void operator()(const GaveBack &) {
        given_back = now;
        add_cause();
    }

    void operator()(const ElectionEnded &event) {
        reunited.reset(); /* they agree */
        next.preferred = event.preferred;
        if (event.how != "stays") {
            chosen = now;
            return;
        }
        if (master == 0 || next.alone) {
            apply(event.winner, Way::kept);
        } else if (change && change->way == Way::take_over && !change->request &&
                   change->master == event.winner && recent(change->at, late_end_us)) {
            change->way = Way::during_election;
        }
        settle();
    }

    void operator()(const NewMaster &event) {
        const bool elected = recent(chosen, request_us) &&
                             std::get<ElectionEnded>(records[*chosen].event).winner == event.node;
        apply(event.node, elected                            ? Way::election
                          : recent(given_back, give_back_us) ? Way::give_back
                          : frozen == event.node             ? Way::frozen_return
                          : next.cause || next.lost          ? Way::during_election
                                                             : Way::take_over);
    }

    template <typename Other>
    void operator()(const Other &) {}

private:
    template <typename E>
    const E *get(std::size_t at) const {
        return std::get_if<E>(&records[at].event);
    }
    int64_t span(std::size_t from, std::size_t to) const {
        return microseconds_between(records[from].time, records[to].time);
    }
    /* Whether there is such a record, and not long ago. */
    bool recent(const Place &place, int64_t limit_us = one_change_us) const {
        return place && span(*place, now) < limit_us;
    }

    void add_cause() { next.cause = recent(next.cause) ? next.cause : now; }

    void lose_master() {
        if (!next.lost) {
            next.lost = now;
            next.first_words.clear();
        }
        next.master = master = 0;
    }

    /* Of several records of one end the first says why. */
    void end_daemon() {
        if (!ended) {
            next.ended_by = recent(kill, request_us) ? kill : std::nullopt;
            lose_master();
            settle();
            next.first_words = stopping ? words(*stopping) : "";
            ended = true;
        }
    }

    /* No election runs any more. */
    void settle() {
        next = {.before = next.before, .lost = next.lost, .ended_by = next.ended_by};
        exchange.reset();
        joiners.clear();
    }

    /* A master is applied, perhaps the same one again. */
    void apply(NodeId node, Way way) {
        const bool known = next.before != 0 || next.lost || way == Way::election;
        Place asked = recent(request, request_us) ? request : std::nullopt;
        if (way == Way::give_back && change && change->way == way &&
            recent(change->at, give_back_us)) {
            next.before = change->before;
            next.cause = change->cause;
            asked = change->request;
        }
        if (known && (node != master || way == Way::kept)) {
            change = next;
            change->way = way;
            change->at = now;
            change->master = node;
            change->request = asked;
        }
        request.reset(); /* it explains no later change */
        master = node;
        members.insert(node);
        chosen.reset();
        next = {.before = node};
        settle();
    }

    /* ---- words ---- */

    std::string clock(const Place &at) const { return clock_text(records[*at].time.realtime); }
    std::string name(NodeId node) const { return name_of(node, local); }
    std::string words(std::size_t at) const { return wording(records[at].event, local).text; }
    std::string and_at() const { return " at " + clock(now) + ", and "; }
    std::string at(const Place &place) const {
        return place ? " (at " + clock(place) + " " + words(*place) + ")" : "";
    }

    std::string cause(std::size_t at) const {
        std::string text = change->first_words.empty() ? words(at) : change->first_words;
        /* Those that corosync lost at once are one cause. */
        const auto *left = get<Left>(at);
        for (std::size_t i = at + 1; left && i < records.size() && span(at, i) == 0; i++) {
            text += get<Left>(i) ? ", and " + words(i) : "";
        }
        const bool lost = left && left->reason == Reason::node_down;
        text += lost && change->alone ? "; or this node was cut off" : "";
        if (get<MastersDisagree>(at)) {
            const std::string together = " (no nodes had been apart: one was held up, or a "
                                         "take-over crossed an election)";
            return change->reunited ? "SPLIT BRAIN: " + text + " (they had been apart until " +
                                          clock(change->reunited) + ")"
                                    : text + (local != 0 ? together : "");
        }
        return text + (change->lost && change->before != 0
                           ? "; " + name(change->before) + " was master"
                           : "");
    }

    std::string no_master() const {
        return change->master != 0
                   ? ""
                   : "; this node has known no master since" +
                         (frozen != 0 ? ", and mastership is frozen to " + name(frozen) : "");
    }

    std::string outcome() const {
        const std::string winner = name(change->master) + (change->preferred ? ", preferred," : "");
        std::string place = " in place of " + name(change->before);
        place = change->before == 0 || change->before == change->master ? "" : place;
        const bool fresh = change->master != local &&
                           g_get_real_time() - records[change->at].time.realtime < late_end_us;
        switch (change->way) {
        case Way::election:
            return (change->first() ? "the election that followed made "
                    : local != 0    ? "an election that no join, leave or lifted freeze explains, "
                                      "as after \"prefer\" on a node, made "
                                    : "an election, for which this log has no reason, made ") +
                   winner + " master" + place;
        case Way::kept:
            return "the election that followed kept " + winner + " as master";
        case Way::during_election:
            return winner + " took over" + place + " while an election ran, as asked or elected";
        case Way::take_over:
            /* Without a word of an election, of which the next moment might bring the end. */
            return winner + (fresh ? " took over" : " was asked to take over") + place;
        case Way::frozen_return:
            return winner + ", to which mastership is frozen, took over" + place;
        default:
            return winner + " took over" + place;
        }
    }

    std::string gap(const std::optional<int64_t> &without_us) const {
        std::string text = !without_us ? ""
                           : *without_us == 0
                               ? "; this node was never without a master"
                               : "; this node had no master for " +
                                     duration_text(std::chrono::microseconds(*without_us));
        for (std::size_t i = change->at; i < records.size(); i++) {
            if (const auto *done = get<client::StepsDone>(i);
                done != nullptr && done->failed != 0) {
                text += "; " + counted(done->failed, "run step") + " FAILED";
            }
        }
        return text;
    }

    const std::vector<Record> &records;
    const NodeId local;
    std::size_t now = 0;
    Change next; /* as far as it is known */
    std::optional<Change> change;
    std::string boot; /* that the last line of the daemon is from */
    NodeId master = 0;
    Place chosen;       /* the election whose winner has not been applied yet */
    bool ended = false; /* the daemon */
    std::set<NodeId> members;
    Place first_start;
    Place request;
    Place stopping; /* by its unit */
    Place kill;     /* or hand-over before its end, by the keeper */
    Place given_back;
    Place reunited;
    NodeId frozen = 0; /* as reported last */
    /* While the members report for a join what they hold to be frozen: */
    Place exchange; /* the join */
    std::set<NodeId> joiners;
    NodeId in_force = 0; /* until then */
};

} // namespace

std::optional<LastChange> find_last_change(const Reading &reading) {
    return Timeline(reading).run();
}

} // namespace ctl
