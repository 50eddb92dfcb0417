#include "ctl/doctor/checks.h"

#include "base/paths.h"

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
        findings.ok("the policy is in effect: you can query the daemon");
    } else if (facts.daemon.problem().kind == ProblemKind::not_permitted) {
        findings.critical("the policy is not in effect: it lets anyone query, but the bus refuses",
                          "apt-get install --reinstall " DUSKVALE_IDENT
                          ", then systemctl reload dbus");
    }
}

} // namespace ctl
