#include "ctl/doctor/checks.h"
#include "ctl/doctor/file.h"
#include "ctl/print/text.h"

#include "base/paths.h"

#include <glib.h>

#include <cstdlib>
#include <map>
#include <sstream>

namespace ctl {

namespace {

constexpr std::size_t enough = 65536;

/* The value of a line "KEY:\tVALUE" of /proc/PID/status. */
std::string status_value(const std::string &status, const std::string &key) {
    std::istringstream lines(status);
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with(key + ":\t")) {
            return line.substr(key.size() + 2);
        }
    }
    return "";
}

/* The daemons of this machine, not those of containers on it; what a daemon has forked and is not
   yet another program is not a second one. */
std::set<long> daemon_processes() {
    std::map<long, long> parents;
    g_autoptr(GDir) processes = g_dir_open("/proc", 0, nullptr);
    for (const char *name = nullptr;
         processes != nullptr && (name = g_dir_read_name(processes)) != nullptr;) {
        const long process = std::strtol(name, nullptr, 10);
        if (process <= 0) {
            continue;
        }
        const std::string directory = std::string("/proc/") + name;
        const std::string words = read_start(directory + "/cmdline", enough).text;
        const std::string program = words.substr(0, words.find('\0'));
        if (program.substr(program.rfind('/') + 1) != DUSKVALE_IDENT) {
            continue;
        }
        const std::string status = read_start(directory + "/status", enough).text;
        const bool of_container = status_value(status, "NSpid").find('\t') != std::string::npos;
        if (!of_container) {
            parents[process] = std::strtol(status_value(status, "PPid").c_str(), nullptr, 10);
        }
    }
    std::set<long> daemons;
    for (const auto &[process, parent] : parents) {
        if (!parents.contains(parent)) {
            daemons.insert(process);
        }
    }
    return daemons;
}

void check_processes(const Facts &facts, Findings &findings) {
    const std::set<long> processes = daemon_processes();
    std::string list;
    for (const long process : processes) {
        list += (list.empty() ? "" : ", ") + std::to_string(process);
    }
    if (processes.size() > 1) {
        findings.add(Level::critical,
                     counted(processes.size(), "daemon") + " run on this node: processes " + list,
                     "systemctl status " DUSKVALE_IDENT " shows the one to keep; end the others");
    } else if (processes.size() == 1) {
        findings.add(Level::ok, "one daemon runs on this node: process " + list);
    } else if (facts.daemon) {
        findings.add(Level::note, "its process does not show in /proc");
    }
}

void check_snapshot(const client::Snapshot &now, Findings &findings) {
    const std::string self = "it answers as " + node_text(now.local_node);
    if (now.members == 0) {
        findings.add(Level::critical, self + ", but has not joined the group",
                     "journalctl -u " DUSKVALE_IDENT " -e");
    } else if (now.master_node == 0) {
        findings.add(Level::critical, self + ", but knows no master",
                     "duskvalectl wait stable --timeout=20, then duskvalectl why");
    } else {
        findings.add(Level::ok, self + "; " + node_text(now.master_node) + " is master");
    }
    if (now.members == 1) {
        findings.add(Level::warning, "it sees no peer: nobody could take over",
                     "duskvalectl doctor on the other nodes");
    } else if (now.members > 1) {
        findings.add(Level::ok,
                     "it sees " + counted(static_cast<uint64_t>(now.members) - 1, "peer"));
    }
}

} // namespace

void check_daemon(const Facts &facts, Findings &findings) {
    check_processes(facts, findings);
    if (facts.daemon) {
        check_snapshot(*facts.daemon, findings);
        return;
    }
    const Problem &problem = facts.daemon.problem();
    switch (problem.kind) {
    case ProblemKind::bus_unreachable:
    case ProblemKind::not_permitted:
        findings.add(Level::unknown, "it could not be asked: see the bus");
        break;
    default:
        if (facts.unit.waits_for_ring()) {
            findings.add(Level::warning, "it is about to start: see the unit");
        } else {
            findings.add(Level::critical, problem_text(problem), problem_advice(problem));
        }
        break;
    }
}

} // namespace ctl
