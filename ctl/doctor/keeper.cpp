#include "ctl/doctor/checks.h"

namespace ctl {

namespace {

/* "on", or why not. */
void check_policy(const std::string &state, const std::string &name, Findings &findings) {
    const bool on = state == "on";
    findings.add(on ? Level::ok : Level::note,
                 name + (on ? " is on" : " does nothing: " + printable(state)));
}

} // namespace

void check_keeper(const Facts &facts, Findings &findings) {
    if (!facts.daemon && facts.daemon.problem().is_of_bus()) {
        findings.unknown("it could not be asked: see the bus");
        return;
    }
    if (!facts.keeper) {
        findings.add(facts.keeper.absent ? Level::note : Level::warning,
                     facts.keeper.why_not +
                         ": nobody watches the services, and a master that is cut "
                         "off keeps serving",
                     facts.keeper.absent ? "systemctl enable --now duskvale-keeper"
                                         : "systemctl restart duskvale-keeper");
        return;
    }
    findings.add_verdict(*facts.keeper, "duskvalectl status");
    check_policy(facts.keeper->stay, "stay", findings);
    check_policy(facts.keeper->quorum_guard, "the quorum guard", findings);
}

} // namespace ctl
