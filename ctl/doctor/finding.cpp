#include "ctl/doctor/finding.h"

#include <algorithm>

namespace ctl {

const char *level_word(Level level) {
    static constexpr const char *words[] = {"ok", "note", "unknown", "warning", "critical"};
    return words[static_cast<int>(level)];
}

Level worst_of(const Findings &findings) {
    Level worst = Level::ok;
    for (const Finding &finding : findings.list()) {
        worst = std::max(worst, finding.level);
    }
    return worst;
}

CheckExit exit_of(Level level) {
    switch (level) {
    case Level::critical:
        return CheckExit::critical;
    case Level::warning:
        return CheckExit::warning;
    case Level::unknown:
        return CheckExit::unknown;
    default:
        return CheckExit::ok;
    }
}

} // namespace ctl
