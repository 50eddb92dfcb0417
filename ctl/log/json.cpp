#include "ctl/log/tell.h"

#include "ctl/ask/describe.h"

namespace ctl {

namespace {

void add_time(JsonLine &line, const char *key, const std::optional<int64_t> &time) {
    if (time) {
        line.add(key, iso_text(*time));
    } else {
        line.add_null(key);
    }
}

void add_cause(JsonLine &line, const Episode &episode) {
    const CauseFound found = cause_of(episode);
    line.open_object("cause").add("word", cause_word(found.cause)).open_array("nodes");
    for (const uint32_t node : found.nodes) {
        line.add_element(node);
    }
    line.close_array().add("text", cause_text(episode)).close_object();
}

/* The last election of the episode: who proposed what, as far as debug lines tell, and who won. */
void add_election(JsonLine &line, const Episode &episode) {
    const Event *end = nullptr;
    for (const Event &event : episode.events) {
        if (event.kind == EventKind::election_stays || event.kind == EventKind::election_mine ||
            event.kind == EventKind::election_other) {
            end = &event;
        }
    }
    if (end == nullptr) {
        line.add_null("election");
        return;
    }
    line.open_object("election").add_node("winner", static_cast<uint32_t>(end->node));
    line.open_array("proposals");
    for (const Event *proposal : counted_proposals(episode)) {
        line.open_object(nullptr)
            .add_node("node", static_cast<uint32_t>(proposal->node))
            .add("counter", proposal->counter)
            .close_object();
    }
    line.close_array().close_object();
}

void add_step(JsonLine &line, const Step &step) {
    line.open_object(nullptr)
        .add("step", step.path)
        .add("action", step.starting ? "start" : "stop");
    add_time(line, "began", step.began);
    add_time(line, "ended", step.ended);
    if (step.status) {
        line.add("wait_status", *step.status);
    } else {
        line.add_null("wait_status");
    }
    line.close_object();
}

} // namespace

const char *kind_word(EpisodeKind kind) {
    switch (kind) {
    case EpisodeKind::mastership:
        return "mastership";
    case EpisodeKind::membership:
        return "membership";
    case EpisodeKind::freeze:
        return "freeze";
    case EpisodeKind::refusal:
        return "refusal";
    case EpisodeKind::device:
        return "device";
    case EpisodeKind::steps:
        return "steps";
    case EpisodeKind::daemon:
        return "daemon";
    case EpisodeKind::trouble:
        break;
    }
    return "trouble";
}

const char *cause_word(Cause cause) {
    switch (cause) {
    case Cause::start:
        return "start";
    case Cause::joined:
        return "joined";
    case Cause::left:
        return "left";
    case Cause::unfrozen:
        return "unfrozen";
    case Cause::give_back:
        return "give-back";
    case Cause::frozen_return:
        return "frozen-return";
    case Cause::election:
        return "election";
    case Cause::request:
        return "take-over";
    case Cause::unknown:
        break;
    }
    return "unknown";
}

void add_episode(JsonLine &line, const Episode &episode) {
    line.add("kind", kind_word(episode.kind)).add("text", headline(episode).text);
    add_time(line, "begin", episode.begin());
    add_time(line, "end", episode.events.back().time);
    if (episode.kind == EpisodeKind::mastership) {
        line.add_node("master", episode.master)
            .add_node("previous", episode.previous)
            .add("changed", episode.changes_master())
            .add("is_master", episode.local);
        add_cause(line, episode);
        add_election(line, episode);
    }
    if (!episode.steps.empty()) {
        line.open_array("steps");
        for (const Step &step : episode.steps) {
            add_step(line, step);
        }
        line.close_array();
    }
    line.open_array("details");
    for (const Told &told : details(episode)) {
        line.open_object(nullptr);
        add_time(line, "time", told.time);
        line.add("text", told.text).close_object();
    }
    line.close_array();
}

} // namespace ctl
