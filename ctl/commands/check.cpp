#include "ctl/ask/bus.h"
#include "ctl/commands/commands.h"
#include "ctl/doctor/facts.h"
#include "ctl/print/text.h"

#include <algorithm>

namespace ctl {

namespace {

/* One member has no standby: that alone is worth a warning. */
constexpr unsigned members_without_keeper = 2;

/* What this node's daemon shows by itself. */
void judge(const client::Snapshot &now, unsigned expected_members, Findings &findings) {
    if (now.master_node == 0) {
        findings.critical("no master is known");
    } else if (const CorosyncFacts seen = ask_corosync();
               !seen.problem && !seen.group.contains(now.master_node)) {
        findings.critical(node_text(now.master_node) + ", the master, is not in the group");
    } else {
        findings.ok(node_text(now.master_node) +
                    (now.is_master ? ", this node, is master" : " is master"));
    }
    const auto members = static_cast<unsigned>(std::max(now.members, 0));
    const std::string text = counted(members, "member");
    if (members < expected_members) {
        findings.add(members == 0 ? Level::critical : Level::warning,
                     "only " + text + " of " + std::to_string(expected_members));
    } else {
        findings.ok(text);
    }
    if (now.frozen_node != 0) {
        findings.warning("frozen to " + node_text(now.frozen_node) + ": " +
                         reason_text(now.frozen_reason));
    }
    if (now.in_transition) {
        findings.warning("run steps not done");
    }
}

/* The worst finding decides the verdict; all of them make the text. */
std::string verdict_line(const Findings &findings) {
    std::string line = spec_of(findings.worst()).verdict;
    const char *separator = " - ";
    for (const Finding &finding : findings.list()) {
        line += separator + finding.text;
        separator = ", ";
    }
    /* Behind a bar, monitoring systems read figures. */
    std::ranges::replace(line, '|', '/');
    return line;
}

/* The figures after the bar, in the form that monitoring systems read. */
std::string figures(const client::Snapshot &now, unsigned expected_members) {
    const auto flag = [](bool value) { return value ? "1" : "0"; };
    return " | members=" + std::to_string(now.members) + ";" + std::to_string(expected_members) +
           ":;;0 devices=" + std::to_string(now.devices) + ";;;0 master=" + flag(now.is_master) +
           " frozen=" + flag(now.frozen_node != 0) + " transition=" + flag(now.in_transition);
}

/* What keeps the daemon from being asked says nothing of the daemon. */
Level level_of(const Problem &problem) {
    return problem.is_absence() || problem.kind == ProblemKind::no_answer ? Level::critical
                                                                          : Level::unknown;
}

} // namespace

int command_check(const Options &options) {
    Bus bus;
    const Result<client::Snapshot> now = open_daemon(bus);
    /* It may be the keeper that holds an absent daemon back, and knows why. */
    const KeeperView keeper = read_keeper(bus, now);
    Findings findings;
    unsigned expected = options.members.value_or(members_without_keeper);
    if (!now) {
        findings.add(level_of(now.problem()), problem_text(now.problem()));
    }
    if (keeper) {
        findings.add_verdict(*keeper);
    }
    if (now && keeper && !options.members) {
        expected = static_cast<unsigned>(
            std::ranges::count(keeper->nodes, true, &client::KeeperNode::listed));
    } else if (now) {
        judge(*now, expected, findings);
    }
    if (now && !keeper) {
        findings.add(keeper.absent ? Level::note : Level::unknown,
                     keeper.why_not + ": run steps and other nodes are not watched");
    }
    print_line(verdict_line(findings) + (now ? figures(*now, expected) : ""));
    return spec_of(findings.worst()).exit_status;
}

} // namespace ctl
