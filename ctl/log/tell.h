/* Episodes in an operator's words. */
#pragma once

#include "ctl/log/episode.h"
#include "ctl/print/json.h"
#include "ctl/print/text.h"

#include <optional>
#include <string>
#include <vector>

namespace ctl {

struct Told {
    std::optional<int64_t> time;
    std::string text;
    Colour colour = Colour::plain;
};

/* What happened, in a sentence without its full stop. */
Told headline(const Episode &episode);

/* What led to a mastership episode; "" for others. */
std::string cause_text(const Episode &episode);

/* How it went, in the order of the log; empty when the headline tells all. */
std::vector<Told> details(const Episode &episode);

/* A stable word for programs. */
const char *kind_word(EpisodeKind kind);
const char *cause_word(Cause cause);

Json json_episode(const Episode &episode);

} // namespace ctl
