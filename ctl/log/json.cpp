#include "ctl/log/tell.h"

#include "ctl/ask/describe.h"

namespace ctl {

namespace {

Json json_time(const std::optional<int64_t> &time) {
    return time ? Json(iso_text(*time)) : Json();
}

Json json_cause(const Episode &episode) {
    const CauseFound found = cause_of(episode);
    return {
        {"word", cause_word(found.cause)}, {"nodes", found.nodes}, {"text", cause_text(episode)}};
}

/* The last election of the episode: who proposed what, as far as debug lines tell, and who won. */
Json json_election(const Episode &episode) {
    const Event *end = nullptr;
    for (const Event &event : episode.events) {
        if (event.kind == EventKind::election_stays || event.kind == EventKind::election_mine ||
            event.kind == EventKind::election_other) {
            end = &event;
        }
    }
    if (end == nullptr) {
        return {};
    }
    Json proposals = Json::array();
    for (const Event *proposal : counted_proposals(episode)) {
        proposals.push_back({{"node", json_node(static_cast<uint32_t>(proposal->node))},
                             {"counter", proposal->counter}});
    }
    return {{"winner", json_node(static_cast<uint32_t>(end->node))}, {"proposals", proposals}};
}

Json json_step(const Step &step) {
    return {{"step", step.path},
            {"action", step.starting ? "start" : "stop"},
            {"began", json_time(step.began)},
            {"ended", json_time(step.ended)},
            {"wait_status", step.status ? Json(*step.status) : Json()}};
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

Json json_episode(const Episode &episode) {
    Json object = {{"kind", kind_word(episode.kind)},
                   {"text", headline(episode).text},
                   {"begin", json_time(episode.begin())},
                   {"end", json_time(episode.events.back().time)}};
    if (episode.kind == EpisodeKind::mastership) {
        object["master"] = json_node(episode.master);
        object["previous"] = json_node(episode.previous);
        object["changed"] = episode.changes_master();
        object["is_master"] = episode.local;
        object["cause"] = json_cause(episode);
        object["election"] = json_election(episode);
    }
    for (const Step &step : episode.steps) {
        object["steps"].push_back(json_step(step));
    }
    object["details"] = Json::array();
    for (const Told &told : details(episode)) {
        object["details"].push_back({{"time", json_time(told.time)}, {"text", told.text}});
    }
    return object;
}

} // namespace ctl
