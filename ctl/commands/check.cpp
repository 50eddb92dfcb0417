#include "ctl/ask/bus.h"
#include "ctl/commands/commands.h"
#include "ctl/print/text.h"

#include <algorithm>

namespace ctl {

namespace {

/* The worst finding decides the status; all of them make the text. */
class Verdict {
public:
    void add(CheckExit status, const std::string &finding) {
        worst = std::max(worst, status);
        findings += (findings.empty() ? "" : ", ") + finding;
    }
    CheckExit status() const { return worst; }
    std::string line() const {
        static constexpr const char *words[] = {"OK", "WARNING", "CRITICAL", "UNKNOWN"};
        return std::string(words[static_cast<int>(worst)]) + " - " + findings;
    }

private:
    CheckExit worst = CheckExit::ok;
    std::string findings;
};

Verdict judge(const client::Snapshot &now, unsigned expected_members) {
    Verdict verdict;
    if (now.master_node == 0) {
        verdict.add(CheckExit::critical, "no master is known");
    } else {
        verdict.add(CheckExit::ok, node_text(now.master_node) +
                                       (now.is_master ? ", this node, is master" : " is master"));
    }
    const auto members = static_cast<unsigned>(std::max(now.members, 0));
    const std::string text = counted(members, "member");
    if (members < expected_members) {
        verdict.add(members == 0 ? CheckExit::critical : CheckExit::warning,
                    "only " + text + " of " + std::to_string(expected_members));
    } else {
        verdict.add(CheckExit::ok, text);
    }
    if (now.frozen_node != 0) {
        verdict.add(CheckExit::warning, "frozen to " + node_text(now.frozen_node) + ": " +
                                            printable(now.frozen_reason));
    }
    if (now.in_transition) {
        verdict.add(CheckExit::warning, "run steps not done");
    }
    return verdict;
}

/* The figures after the bar, in the form that monitoring systems read. */
std::string figures(const client::Snapshot &now, unsigned expected_members) {
    const auto flag = [](bool value) { return value ? "1" : "0"; };
    return " | members=" + std::to_string(now.members) + ";" + std::to_string(expected_members) +
           ":;;0 devices=" + std::to_string(now.devices) + ";;;0 master=" + flag(now.is_master) +
           " frozen=" + flag(now.frozen_node != 0) + " transition=" + flag(now.in_transition);
}

CheckExit status_of(const Problem &problem) {
    switch (problem.kind) {
    case ProblemKind::daemon_not_running:
    case ProblemKind::no_corosync:
    case ProblemKind::no_answer:
        return CheckExit::critical;
    default:
        return CheckExit::unknown;
    }
}

} // namespace

int command_check(const Arguments &arguments) {
    /* One member has no standby: that alone is worth a warning. */
    std::optional<unsigned> expected_members = 2;
    if (arguments.has(Opt::members)) {
        expected_members = parse_count(arguments.value(Opt::members), 1);
        if (!expected_members) {
            usage_fault(arguments, "--members takes a whole number from 1 up");
            return static_cast<int>(CheckExit::unknown);
        }
    }
    Bus bus;
    const Result<client::Snapshot> now = open_daemon(bus);
    if (!now) {
        Verdict verdict;
        verdict.add(status_of(now.problem()), problem_text(now.problem()));
        print_line(verdict.line());
        return static_cast<int>(verdict.status());
    }
    const Verdict verdict = judge(*now, *expected_members);
    print_line(verdict.line() + figures(*now, *expected_members));
    return static_cast<int>(verdict.status());
}

} // namespace ctl
