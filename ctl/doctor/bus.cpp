#include "ctl/doctor/checks.h"

#include "base/paths.h"

namespace ctl {

namespace {

/* Where the package puts it, and where an administrator may put one instead. */
constexpr const char *policy_files[] = {
    "/usr/share/dbus-1/system.d/" DUSKVALE_BUS_NAME ".conf",
    "/etc/dbus-1/system.d/" DUSKVALE_BUS_NAME ".conf",
};

void check_policy_file(Findings &findings) {
    bool found = false;
    for (const char *path : policy_files) {
        struct stat status = {};
        if (stat(path, &status) == 0) {
            found = true;
            if (only_root_changes(path, "the bus policy", status, findings)) {
                findings.ok(std::string("the bus policy is installed: ") + path);
            }
        }
    }
    if (!found) {
        findings.critical(
            "the bus policy is not installed: without it the bus gives the daemon no name",
            "apt-get install --reinstall " DUSKVALE_IDENT ", then systemctl reload dbus");
    }
}

} // namespace

void check_bus(const Facts &facts, Findings &findings) {
    if (facts.bus) {
        const bool refused = facts.bus->kind == ProblemKind::not_permitted;
        findings.add(refused ? Level::unknown : Level::critical, problem_text(*facts.bus),
                     spec_of(*facts.bus).advice);
    } else {
        findings.ok("the system bus answers");
    }
    check_policy_file(findings);
    if (facts.owner && facts.owner->user != 0) {
        findings.critical("the daemon's name belongs to process " +
                              std::to_string(facts.owner->process) + " of user " +
                              std::to_string(facts.owner->user) + ", not of root",
                          "look for a policy that allows it: grep -rl " DUSKVALE_BUS_NAME
                          " /etc/dbus-1 /usr/share/dbus-1");
    } else if (facts.owner && facts.daemon) {
        findings.ok("the policy is in effect: root owns the name, and you can query it");
    } else if (!facts.bus && !facts.daemon &&
               facts.daemon.problem().kind == ProblemKind::not_permitted) {
        findings.critical("the policy is not in effect: it lets anyone query, but the bus refuses",
                          "systemctl reload dbus");
    }
}

} // namespace ctl
