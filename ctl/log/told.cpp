#include "ctl/log/told.h"

#include "ctl/exit-status.h"

#include <cstdio>

namespace ctl {

std::optional<std::vector<Episode>> read_named_log(const Options &options, int &status) {
    const LogSource source{options.log, options.since};
    if (!source.file.empty() && !source.since.empty()) {
        status = usage_fault(options, "--since is for the journal; leave it out with --log");
        return std::nullopt;
    }
    LogRead log = read_log(source);
    if (log.fault.empty()) {
        return std::move(log.episodes);
    }
    std::fprintf(stderr, "duskvalectl: %s\n", log.fault.c_str());
    status = Exit::failed;
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
