#include "ctl/doctor/checks.h"

namespace ctl {

void check_bus(const Facts &facts, Findings &findings) {
    if (facts.daemon || !facts.daemon.problem().is_of_bus()) {
        findings.ok("the system bus answers");
        return;
    }
    const Problem &problem = facts.daemon.problem();
    const bool refused = problem.kind == ProblemKind::not_permitted;
    findings.add(refused ? Level::unknown : Level::critical, problem_text(problem),
                 spec_of(problem).advice);
}

} // namespace ctl
