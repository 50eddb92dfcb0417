#include "ctl/log/episode.h"

#include <algorithm>

namespace ctl {

namespace {

/* Lines of one change follow each other within milliseconds; an election takes 500 ms from its last
   start, and on a node that is held up some more. */
constexpr int64_t one_change_us = 3'000'000;

uint32_t node_of(int64_t printed) {
    return static_cast<uint32_t>(printed);
}

bool holds(const Episode &episode, EventKind kind) {
    return std::ranges::find(episode.events, kind, &Event::kind) != episode.events.end();
}

bool has_election(const Episode &episode) {
    return holds(episode, EventKind::election_mine) || holds(episode, EventKind::election_other) ||
           holds(episode, EventKind::election_stays);
}

bool has_giveback(const Episode &episode) {
    return holds(episode, EventKind::giveback_own) || holds(episode, EventKind::giveback_taken);
}

/* What `field` holds in the events of `kind`, each value once. */
std::vector<uint32_t> nodes_in(const Episode &episode, EventKind kind, int64_t Event::*field) {
    std::vector<uint32_t> nodes;
    for (const Event &event : episode.events) {
        const uint32_t node = node_of(event.*field);
        if (event.kind == kind && std::ranges::find(nodes, node) == nodes.end()) {
            nodes.push_back(node);
        }
    }
    return nodes;
}

bool returns_to_freeze(const Event &event) {
    return event.kind == EventKind::frozen_here && event.word == "will be";
}

} // namespace

std::optional<int64_t> Episode::begin() const {
    return events.empty() ? std::nullopt : events.front().time;
}

CauseFound cause_of(const Episode &episode) {
    const auto lifting = nodes_in(episode, EventKind::unfrozen, &Event::sender);
    if (std::ranges::any_of(episode.events, returns_to_freeze)) {
        return {Cause::frozen_return, nodes_in(episode, EventKind::frozen_here, &Event::frozen)};
    }
    if (episode.was_frozen && !lifting.empty()) {
        return {Cause::unfrozen, {lifting.front()}};
    }
    if (episode.after_start) {
        return {Cause::start, {}};
    }
    if (holds(episode, EventKind::joined)) {
        return {Cause::joined, nodes_in(episode, EventKind::joined, &Event::node)};
    }
    if (holds(episode, EventKind::left)) {
        return {Cause::left, nodes_in(episode, EventKind::left, &Event::node)};
    }
    /* With a join every member says that nothing is frozen; with a lift only one does. */
    if (!lifting.empty()) {
        return {lifting.size() > 1 ? Cause::joined : Cause::unfrozen, lifting};
    }
    if (has_giveback(episode)) {
        const bool own = holds(episode, EventKind::giveback_own);
        return {Cause::give_back,
                nodes_in(episode, own ? EventKind::giveback_own : EventKind::giveback_taken,
                         &Event::sender)};
    }
    if (has_election(episode) || holds(episode, EventKind::election_called)) {
        return {Cause::election, {}};
    }
    /* Without what was before, what led to it may be missing as well. */
    const bool asked = episode.applied && episode.previous != 0;
    return {asked ? Cause::request : Cause::unknown, {}};
}

std::vector<const Event *> counted_proposals(const Episode &episode) {
    std::vector<const Event *> proposals;
    const Event *latest = nullptr;
    for (const Event &event : episode.events) {
        if (event.kind == EventKind::proposal) {
            latest = &event;
            const bool known = std::ranges::any_of(
                proposals, [&](const Event *other) { return other->node == event.node; });
            if (!known) {
                proposals.push_back(&event);
            }
        } else if (event.kind == EventKind::proposal_first && latest != nullptr) {
            /* Each start of an election forgets the proposals before it. */
            proposals.assign(1, latest);
        }
    }
    return proposals;
}

Episode &EpisodeBuilder::open(EpisodeKind kind, const Event &event) {
    Episode &episode = list.emplace_back();
    episode.kind = kind;
    episode.events.push_back(event);
    return episode;
}

/* Whether `event` can belong to that episode, as far as the times tell. */
bool EpisodeBuilder::follows(const Place &place, const Event &event) const {
    if (!place) {
        return false;
    }
    const std::optional<int64_t> last = list[*place].events.back().time;
    return !last || !event.time || *event.time - *last <= one_change_us;
}

/* The last episode when it is of this kind and goes on with `event`; else a new one. */
Episode &EpisodeBuilder::continue_or_open(EpisodeKind kind, const Event &event) {
    if (!list.empty() && list.back().kind == kind && follows(list.size() - 1, event)) {
        list.back().events.push_back(event);
        return list.back();
    }
    return open(kind, event);
}

/* The episode that `event`, which leads to a master, belongs to; a new one when the last has come
   to its result. */
Episode &EpisodeBuilder::mastership(const Event &event) {
    if (!settled && follows(current, event)) {
        list[*current].events.push_back(event);
        return list[*current];
    }
    /* Refused multicasts just before it are part of how it went. */
    const bool refused = !list.empty() && list.back().kind == EpisodeKind::trouble &&
                         follows(list.size() - 1, event) &&
                         std::ranges::all_of(list.back().events, [](const Event &other) {
                             return other.kind == EventKind::send_failed;
                         });
    if (refused) {
        list.back().events.push_back(event);
    }
    Episode &episode = refused ? list.back() : open(EpisodeKind::mastership, event);
    episode.kind = EpisodeKind::mastership;
    episode.previous = master;
    episode.after_start = after_start;
    episode.was_frozen = frozen.value_or(0) != 0;
    current = list.size() - 1;
    settled = false;
    return episode;
}

void EpisodeBuilder::forget() {
    current.reset();
    running.reset();
    remembered.reset();
    master = 0;
    is_master.reset();
    frozen.reset();
    joined_while_frozen.reset();
}

void EpisodeBuilder::take_life(const Event &event) {
    /* The end of the unit's wait belongs to the start, not to what ended before the wait. */
    const bool waited = !list.empty() && list.back().events.back().kind == EventKind::unit_waited;
    if (event.kind == EventKind::unit_waited || (event.kind == EventKind::starting && !waited)) {
        open(EpisodeKind::daemon, event);
    } else {
        continue_or_open(EpisodeKind::daemon, event);
    }
    if (event.kind == EventKind::registered) {
        return;
    }
    after_start = event.kind == EventKind::starting;
    if (event.kind != EventKind::got_signal) {
        forget();
    }
}

/* A node came or went while mastership was frozen. */
void EpisodeBuilder::take_membership(const Event &event) {
    const bool told_before = !list.empty() && !settled && current == list.size() - 1 &&
                             list.back().events.size() == 1 &&
                             list.back().events[0].node == event.node;
    if (told_before) {
        /* The debug line of the same join or leave came first, and promised an election. */
        list.back().kind = EpisodeKind::membership;
        list.back().events.push_back(event);
        current.reset();
    } else {
        open(EpisodeKind::membership, event);
    }
    frozen = event.frozen;
    if (event.kind == EventKind::joined_frozen) {
        joined_while_frozen = event;
    }
}

void EpisodeBuilder::take_freeze(const Event &event) {
    const bool known = !frozen || *frozen == event.frozen;
    frozen = event.frozen;
    if (returns_to_freeze(event)) {
        mastership(event);
        return;
    }
    /* With each join every member says the freeze anew, this node's own join included. */
    const bool said_again =
        known && !list.empty() && follows(list.size() - 1, event) &&
        (list.back().kind == EpisodeKind::membership || list.back().kind == EpisodeKind::freeze ||
         (list.back().kind == EpisodeKind::mastership && after_start));
    if (said_again) {
        list.back().events.push_back(event);
    } else {
        open(EpisodeKind::freeze, event);
    }
}

void EpisodeBuilder::take_unfrozen(const Event &event) {
    Episode &episode = mastership(event);
    if (frozen.value_or(0) != 0 && joined_while_frozen &&
        joined_while_frozen->node == event.sender) {
        const std::optional<int64_t> joined = joined_while_frozen->time;
        episode.lifted_by_join = !joined || !event.time || *event.time - *joined <= one_change_us;
    }
    frozen = 0;
}

/* An election has ended on this node. */
void EpisodeBuilder::take_decision(const Event &event) {
    const bool stays = event.kind == EventKind::election_stays;
    if (stays && settled && follows(current, event) && !has_election(list[*current]) &&
        !has_giveback(list[*current]) && list[*current].master == node_of(event.node)) {
        /* The winner's take-over was quicker than this node's own end of the election. */
        list[*current].events.push_back(event);
        return;
    }
    Episode &episode = mastership(event);
    if (stays) {
        episode.master = master = node_of(event.node);
        episode.local = is_master.value_or(false);
        settled = true;
        after_start = false;
    }
}

/*
 * The episode that a take-over belongs to. The winner of an election is applied by it a second
 * time; of several slaves that take a given back mastership, the last is master.
 */
Episode &EpisodeBuilder::result_of(const Event &event) {
    const bool goes_on = settled && follows(current, event) && list[*current].applied &&
                         (list[*current].master == node_of(event.node)
                              ? holds(list[*current], EventKind::election_other)
                              : has_giveback(list[*current]));
    if (!goes_on) {
        return mastership(event);
    }
    list[*current].events.push_back(event);
    return list[*current];
}

/* A master was applied on this node. */
void EpisodeBuilder::take_applied(const Event &event) {
    const uint32_t node = node_of(event.node);
    const bool now_master = event.kind == EventKind::became_master;
    Episode &episode = result_of(event);
    episode.applied = true;
    episode.role_changed = episode.role_changed || is_master != now_master;
    episode.master = master = node;
    episode.local = now_master;
    is_master = now_master;
    settled = true;
    after_start = false;
    (running ? remembered : running) = current;
}

void EpisodeBuilder::take_step(const Event &event) {
    if (event.kind == EventKind::run_pending) {
        running = remembered;
        remembered.reset();
    }
    if (!running && event.kind == EventKind::step_started) {
        open(EpisodeKind::steps, event);
        running = list.size() - 1;
    } else if (running) {
        list[*running].events.push_back(event);
    } else {
        if (event.kind == EventKind::step_late || event.kind == EventKind::step_not_run) {
            take_trouble(event);
        }
        return;
    }
    Episode &episode = list[*running];
    if (event.kind == EventKind::step_started) {
        episode.steps.push_back(
            {event.text, event.role != 0, event.child, event.time, std::nullopt, std::nullopt});
    } else if (event.kind == EventKind::step_ended) {
        for (Step &step : episode.steps) {
            if (step.child == event.child && !step.status) {
                step.ended = event.time;
                step.status = event.status;
            }
        }
    } else if (event.kind == EventKind::steps_done) {
        episode.failed_steps = episode.failed_steps.value_or(0) + event.count;
        running.reset();
    }
}

void EpisodeBuilder::take_trouble(const Event &event) {
    /* A start goes on over an error, such as that of a node without the driver. */
    const bool starting = after_start && !list.empty() && list.back().kind == EpisodeKind::daemon &&
                          !holds(list.back(), EventKind::registered);
    if (starting) {
        list.back().events.push_back(event);
    } else if (!settled && follows(current, event)) {
        list[*current].events.push_back(event);
    } else {
        continue_or_open(EpisodeKind::trouble, event);
    }
}

void EpisodeBuilder::add(const Event &event) {
    if (about_daemon(event.kind)) {
        take_life(event);
        return;
    }
    switch (event.kind) {
    case EventKind::joined_frozen:
    case EventKind::left_frozen:
        take_membership(event);
        break;
    case EventKind::frozen_here:
    case EventKind::frozen_elsewhere:
        take_freeze(event);
        break;
    case EventKind::unfrozen:
        take_unfrozen(event);
        break;
    case EventKind::joined:
    case EventKind::left:
    case EventKind::election_called:
    case EventKind::proposal:
    case EventKind::proposal_first:
    case EventKind::election_void:
    case EventKind::giveback_void:
    case EventKind::giveback_own:
    case EventKind::giveback_kept:
    case EventKind::giveback_taken:
        mastership(event);
        break;
    case EventKind::election_stays:
    case EventKind::election_mine:
    case EventKind::election_other:
        take_decision(event);
        break;
    case EventKind::take_over_from:
        result_of(event);
        break;
    case EventKind::became_master:
    case EventKind::became_slave:
        take_applied(event);
        break;
    case EventKind::step_started:
    case EventKind::step_ended:
    case EventKind::step_late:
    case EventKind::step_not_run:
    case EventKind::steps_done:
    case EventKind::run_remembered:
    case EventKind::run_pending:
        take_step(event);
        break;
    case EventKind::prefer_frozen:
        open(EpisodeKind::freeze, event);
        break;
    case EventKind::refused_frozen:
    case EventKind::refused_alone:
        open(EpisodeKind::refusal, event);
        break;
    case EventKind::device:
        open(EpisodeKind::device, event);
        break;
    default:
        take_trouble(event);
        break;
    }
}

} // namespace ctl
