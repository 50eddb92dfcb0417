#include "ctl/doctor/checks.h"

#include "base/paths.h"

namespace ctl {

namespace {

void check_snapshot(const client::Snapshot &now, Findings &findings) {
    const std::string self = "it answers as " + node_text(now.local_node);
    if (now.members == 0) {
        findings.critical(self + ", but has not joined the group",
                          "journalctl -u " DUSKVALE_IDENT " -e");
    } else if (now.master_node == 0) {
        findings.critical(self + ", but knows no master",
                          "duskvalectl wait stable --timeout=20, then duskvalectl why");
    } else {
        findings.ok(self + "; " + node_text(now.master_node) + " is master");
    }
    if (now.members == 1) {
        findings.warning("it sees no peer: no other node could take over",
                         "duskvalectl doctor on the other nodes");
    } else if (now.members > 1) {
        findings.ok("it sees " + counted(static_cast<uint64_t>(now.members) - 1, "peer"));
    }
}

} // namespace

void check_daemon(const Facts &facts, Findings &findings) {
    if (facts.daemon) {
        check_snapshot(*facts.daemon, findings);
        return;
    }
    const Problem &problem = facts.daemon.problem();
    if (problem.is_of_bus()) {
        findings.unknown("it could not be asked: see the bus");
    } else if (facts.unit.waits_for_ring()) {
        findings.warning("it is about to start: see the unit");
    } else {
        findings.critical(problem_text(problem), spec_of(problem).advice);
    }
}

} // namespace ctl
