#include "ctl/doctor/finding.h"

#include "ctl/exit-status.h"

#include <algorithm>

namespace ctl {

namespace {

/* The first of them that was found decides. */
constexpr LevelSpec levels[] = {
    {Level::critical, "critical", "CRITICAL", CheckExit::critical, Colour::bad},
    {Level::warning, "warning", "WARNING", CheckExit::warning, Colour::doubtful},
    {Level::unknown, "unknown", "UNKNOWN", CheckExit::unknown, Colour::doubtful},
    {Level::ok, "ok", "OK", CheckExit::ok, Colour::good},
    {Level::note, "note", "OK", CheckExit::ok, Colour::faint},
};

} // namespace

void Findings::add_verdict(const client::KeeperState &keeper, const std::string &next) {
    Level level = level_of_word(keeper.verdict);
    for (const std::string &cause : keeper.causes) {
        add(level, printable(cause), level == Level::ok ? "" : next);
        level = Level::note;
    }
}

std::size_t Findings::count(Level level) const {
    return static_cast<std::size_t>(std::ranges::count(all, level, &Finding::level));
}

Level Findings::worst() const {
    const auto found = [this](Level level) { return level == Level::ok || count(level) > 0; };
    return std::ranges::find_if(levels, found, &LevelSpec::level)->level;
}

const LevelSpec &spec_of(Level level) {
    return *std::ranges::find(levels, level, &LevelSpec::level);
}

Level level_of_word(const std::string &word) {
    const auto *found = std::ranges::find(levels, word, &LevelSpec::word);
    return found != std::end(levels) ? found->level : Level::unknown;
}

} // namespace ctl
