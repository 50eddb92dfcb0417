#include "ctl/doctor/checks.h"

namespace ctl {

void check_bus(const Facts &facts, Findings &findings) {
    if (facts.bus) {
        const bool refused = facts.bus->kind == ProblemKind::not_permitted;
        findings.add(refused ? Level::unknown : Level::critical, problem_text(*facts.bus),
                     spec_of(*facts.bus).advice);
        return;
    }
    findings.ok("the system bus answers");
    if (facts.daemon) {
        findings.ok("the policy lets you query the daemon");
    } else if (facts.daemon.problem().kind == ProblemKind::not_permitted) {
        const Problem &problem = facts.daemon.problem();
        findings.unknown(problem_text(problem), spec_of(problem).advice);
    }
}

} // namespace ctl
