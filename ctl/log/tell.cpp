#include "ctl/log/tell.h"

#include "ctl/log/tell-event.h"

#include <algorithm>

namespace ctl {

namespace {

std::string nodes_text(std::vector<uint32_t> nodes) {
    std::ranges::sort(nodes);
    std::string text = nodes.size() == 1 ? "node " : "nodes ";
    for (std::size_t i = 0; i < nodes.size(); i++) {
        text += (i == 0 ? "" : i + 1 == nodes.size() ? " and " : ", ") + std::to_string(nodes[i]);
    }
    return text;
}

bool holds(const Episode &episode, EventKind kind) {
    return std::ranges::find(episode.events, kind, &Event::kind) != episode.events.end();
}

/* The same trouble several times in a row is told once, with how often. */
std::vector<Told> told_once(const std::vector<Told> &all) {
    std::vector<Told> list;
    for (std::size_t i = 0; i < all.size();) {
        std::size_t end = i + 1;
        while (end < all.size() && all[i].colour == Colour::bad && all[end].text == all[i].text) {
            end++;
        }
        list.push_back(all[i]);
        if (end - i > 1) {
            list.back().text += " (" + std::to_string(end - i) + " times)";
        }
        i = end;
    }
    return list;
}

Told mastership_headline(const Episode &episode) {
    Told told;
    const std::string who = node_text(episode.master) + (episode.local ? ", this node," : "");
    if (episode.master == 0) {
        told.text =
            cause_of(episode).cause == Cause::give_back || holds(episode, EventKind::giveback_kept)
                ? "a give-back that nobody took up"
                : "an election that came to no end in this log";
        told.colour = Colour::doubtful;
    } else if (!episode.applied) {
        told.text = who + " stays master";
    } else if (!episode.changes_master()) {
        told.text = who + " took over again, being master already";
    } else {
        told.text = who + " became master";
        if (episode.previous != 0) {
            told.text += " after " + node_text(episode.previous);
        }
        told.text += episode.local ? "" : "; this node is slave";
        told.colour = Colour::good;
    }
    if (episode.failed_steps.value_or(0) > 0) {
        told.text +=
            ", " + counted(static_cast<uint64_t>(*episode.failed_steps), "run step") + " FAILED";
        told.colour = Colour::bad;
    }
    return told;
}

std::string freeze_headline(const Event &event) {
    if (event.kind == EventKind::prefer_frozen) {
        return event_text(event);
    }
    return "mastership was frozen to " + node_text(static_cast<uint32_t>(event.frozen)) + ", as " +
           node_text(static_cast<uint32_t>(event.sender)) + " was asked" +
           (event.text.empty() ? "" : ": " + printable(event.text));
}

bool about_to_start(EventKind kind) {
    return kind == EventKind::unit_waiting || kind == EventKind::unit_waited;
}

Told daemon_headline(const Episode &episode) {
    /* What ended it weighs more than what the end entailed. */
    for (const EventKind kind :
         {EventKind::split_brain, EventKind::corosync_gone, EventKind::bus_lost,
          EventKind::start_failed, EventKind::name_taken}) {
        const auto found = std::ranges::find(episode.events, kind, &Event::kind);
        if (found != episode.events.end()) {
            return {std::nullopt, event_text(*found), Colour::bad};
        }
    }
    if (holds(episode, EventKind::starting)) {
        return {std::nullopt, "this node's daemon started", Colour::plain};
    }
    if (holds(episode, EventKind::got_signal) || holds(episode, EventKind::ending)) {
        return {std::nullopt, "this node's daemon was stopped", Colour::doubtful};
    }
    if (holds(episode, EventKind::registered)) {
        return {std::nullopt, "this node's daemon had started", Colour::plain};
    }
    if (about_to_start(episode.events.front().kind)) {
        return {std::nullopt, "this node's daemon is about to start", Colour::plain};
    }
    return {std::nullopt, "this node's daemon ended", Colour::bad};
}

std::string proposals_text(const std::vector<const Event *> &proposals, int64_t winner) {
    std::string text;
    for (const Event *proposal : proposals) {
        text += (text.empty() ? "proposals: " : ", ") +
                node_text(static_cast<uint32_t>(proposal->node)) + " with counter " +
                std::to_string(proposal->counter);
    }
    const auto won = std::ranges::find(proposals, winner, &Event::node);
    const bool tie = won != proposals.end() &&
                     std::ranges::count(proposals, (*won)->counter, &Event::counter) > 1;
    return text + (tie ? "; of equals the first delivered wins" : "");
}

/* Tells the events of one episode, several that say one thing as one. */
class Teller {
public:
    explicit Teller(const Episode &the_episode) : episode(the_episode) {}

    std::vector<Told> tell() {
        for (const Event &event : episode.events) {
            take(event);
        }
        for (const Step &step : episode.steps) {
            if (!step.status) {
                add(step.began, step_text(step) + ", and its end is not in the log", Colour::bad);
            }
        }
        return std::move(list);
    }

private:
    void add(const std::optional<int64_t> &time, const std::string &text, Colour colour) {
        list.push_back({time, text, colour});
    }

    bool is_first(const Event &event) const {
        return &*std::ranges::find(episode.events, event.kind, &Event::kind) == &event;
    }

    void take(const Event &event) {
        switch (event.kind) {
        case EventKind::proposal:
        case EventKind::proposal_first:
            return;
        case EventKind::unfrozen:
            if (is_first(event)) {
                add(event.time, unfrozen_text(), Colour::plain);
            }
            return;
        case EventKind::election_called:
        case EventKind::starting:
            if (is_first(event)) {
                add(event.time, event_text(event), event_colour(event));
            }
            return;
        case EventKind::frozen_elsewhere:
        case EventKind::frozen_here:
            if (is_first(event) && episode.kind != EpisodeKind::freeze) {
                add(event.time, event_text(event), event_colour(event));
            }
            return;
        case EventKind::step_started:
        case EventKind::take_over_from:
        case EventKind::run_remembered:
        case EventKind::run_pending:
            return;
        case EventKind::step_ended:
            take_step(event);
            return;
        case EventKind::became_slave:
            if (applied_before(event)) {
                add(event.time,
                    node_text(static_cast<uint32_t>(event.node)) + " took over as elected",
                    Colour::plain);
                return;
            }
            break;
        case EventKind::election_stays:
        case EventKind::election_mine:
        case EventKind::election_other:
            if (const auto proposals = counted_proposals(episode); !proposals.empty()) {
                add(event.time, proposals_text(proposals, event.node), Colour::plain);
            }
            break;
        default:
            break;
        }
        add(event.time, event_text(event), event_colour(event));
    }

    void take_step(const Event &event) {
        for (const Step &step : episode.steps) {
            if (step.child == event.child && step.status == event.status) {
                add(event.time, step_text(step), event.status == 0 ? Colour::plain : Colour::bad);
                return;
            }
        }
        add(event.time, event_text(event), event_colour(event));
    }

    bool applied_before(const Event &event) const {
        for (const Event &other : episode.events) {
            if (&other == &event) {
                return false;
            }
            if (other.kind == event.kind && other.node == event.node) {
                return true;
            }
        }
        return false;
    }

    std::string unfrozen_text() const {
        std::vector<uint32_t> nodes;
        for (const Event &event : episode.events) {
            const auto node = static_cast<uint32_t>(event.sender);
            if (event.kind == EventKind::unfrozen &&
                std::ranges::find(nodes, node) == nodes.end()) {
                nodes.push_back(node);
            }
        }
        if (nodes.size() > 1) {
            return nodes_text(nodes) + " said that nothing is frozen, as all do at a join";
        }
        return nodes_text(nodes) +
               (episode.was_frozen ? " lifted the freeze" : " said that nothing is frozen");
    }

    const Episode &episode;
    std::vector<Told> list;
};

} // namespace

Told headline(const Episode &episode) {
    Told told;
    switch (episode.kind) {
    case EpisodeKind::mastership:
        told = mastership_headline(episode);
        break;
    case EpisodeKind::daemon:
        told = daemon_headline(episode);
        break;
    case EpisodeKind::membership: {
        const auto found = std::ranges::find_if(episode.events, [](const Event &event) {
            return event.kind == EventKind::joined_frozen || event.kind == EventKind::left_frozen;
        });
        told = {std::nullopt, event_text(*found), event_colour(*found)};
        break;
    }
    case EpisodeKind::freeze:
        told.text = freeze_headline(episode.events.front());
        told.colour = Colour::doubtful;
        break;
    case EpisodeKind::trouble:
        told = told_once(Teller(episode).tell()).front();
        break;
    case EpisodeKind::steps:
        told.text = "run steps, for a role from before this log";
        break;
    default:
        told.text = event_text(episode.events.front());
        told.colour = event_colour(episode.events.front());
        break;
    }
    told.time = episode.begin();
    return told;
}

std::string cause_text(const Episode &episode) {
    if (episode.kind != EpisodeKind::mastership) {
        return {};
    }
    const CauseFound found = cause_of(episode);
    const std::string nodes = nodes_text(found.nodes);
    switch (found.cause) {
    case Cause::start:
        return "this node's daemon had started and joined the group";
    case Cause::joined:
        return found.nodes.size() == 1
                   ? nodes + " joined the group"
                   : "a node joined the group, of " + nodes +
                         ", and one may have left just before (debug lines would name them)";
    case Cause::left:
        return nodes + " left the group";
    case Cause::unfrozen:
        return episode.lifted_by_join ? nodes + " joined without the freeze, and so lifted it"
                                      : nodes + " was asked to lift the freeze";
    case Cause::give_back:
        return nodes + " was asked to give mastership back";
    case Cause::frozen_return:
        return nodes + ", to which mastership is frozen, came back";
    case Cause::election:
        return "an election without a join: a node had left, or a preference was set (debug lines "
               "would name it)";
    case Cause::request:
        return node_text(episode.master) + " was asked to take over: there was no election";
    case Cause::unknown:
        break;
    }
    return "this log does not tell";
}

std::vector<Told> details(const Episode &episode) {
    std::vector<Told> list = told_once(Teller(episode).tell());
    const std::string head = headline(episode).text;
    std::erase_if(list, [&](const Told &told) { return told.text == head; });
    return list;
}

} // namespace ctl
