#include "ctl/commands/commands.h"
#include "ctl/log/told.h"
#include "ctl/print/json.h"

#include <algorithm>
#include <cstdio>

namespace ctl {

namespace {

/*
 * The episodes that answer, newest last: the last change of role; when it followed a start of the
 * daemon, how the daemon had ended, since that moved mastership; and an end of the daemon since.
 */
std::vector<const Episode *> answer_in(const std::vector<Episode> &episodes) {
    std::size_t change = episodes.size();
    while (change > 0 && !episodes[change - 1].changes_master()) {
        change--;
    }
    std::vector<const Episode *> answer;
    if (change == 0) {
        return answer;
    }
    if (episodes[change - 1].after_start) {
        std::size_t first = change - 1;
        while (first > 0 && (episodes[first - 1].kind == EpisodeKind::daemon ||
                             episodes[first - 1].kind == EpisodeKind::trouble)) {
            first--;
        }
        for (std::size_t i = first; i < change - 1; i++) {
            answer.push_back(&episodes[i]);
        }
    }
    answer.push_back(&episodes[change - 1]);
    for (std::size_t i = change; i < episodes.size(); i++) {
        if (episodes[i].kind == EpisodeKind::daemon) {
            answer.push_back(&episodes[i]);
        }
    }
    return answer;
}

const Episode &change_in(const std::vector<const Episode *> &answer) {
    return **std::ranges::find_if(answer,
                                  [](const Episode *episode) { return episode->changes_master(); });
}

} // namespace

int command_why(const Options &options) {
    int status = Exit::ok;
    const auto episodes = read_named_log(options, status);
    if (!episodes) {
        return status;
    }
    const std::vector<const Episode *> answer = answer_in(*episodes);
    if (options.json) {
        Json list = Json::array();
        for (const Episode *episode : answer) {
            list.push_back(json_episode(*episode));
        }
        const Json change = answer.empty() ? Json() : json_episode(change_in(answer));
        print_line(json_line({{"change", change}, {"episodes", list}}));
        return status;
    }
    if (answer.empty()) {
        print_line("the log shows no change of role");
        return status;
    }
    for (const Episode *episode : answer) {
        print_episode(*episode);
    }
    return status;
}

} // namespace ctl
