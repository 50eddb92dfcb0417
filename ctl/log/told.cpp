#include "ctl/log/told.h"

#include <cstdio>

namespace ctl {

std::optional<std::vector<Episode>> read_named_log(const Arguments &arguments, int &status) {
    const LogSource source{arguments.value(Opt::log), arguments.value(Opt::since)};
    if (!source.file.empty() && !source.since.empty()) {
        status = usage_fault(arguments, "--since is for the journal; leave it out with --log");
        return std::nullopt;
    }
    LogRead log = read_log(source);
    if (log.fault.empty()) {
        return std::move(log.episodes);
    }
    std::fprintf(stderr, "duskvalectl: %s\n", log.fault.c_str());
    status = static_cast<int>(Exit::failed);
    return std::nullopt;
}

void print_episode(const Episode &episode) {
    const Told head = headline(episode);
    print((head.time ? date_clock_text(*head.time) + "  " : "") + paint(head.colour, head.text) +
          "\n");
    if (episode.kind == EpisodeKind::mastership && episode.changes_master()) {
        print("    why: " + cause_text(episode) + "\n");
    }
    for (const Told &told : details(episode)) {
        print((told.time ? "    " + clock_text(*told.time) + "  " : "    ") +
              paint(told.colour, told.text) + "\n");
    }
}

} // namespace ctl
