#include "ctl/doctor/checks.h"
#include "ctl/print/text.h"

#include "base/paths.h"

#include <algorithm>
#include <iterator>

namespace ctl {

namespace {

constexpr const char *status_command = "systemctl status corosync";

std::string nodes_text(const std::set<uint32_t> &nodes) {
    std::string text;
    for (const uint32_t node : nodes) {
        text += (text.empty() ? "" : ", ") + node_text(node);
    }
    return text;
}

std::set<uint32_t> without(const std::set<uint32_t> &nodes, const std::set<uint32_t> &others) {
    std::set<uint32_t> rest;
    std::set_difference(nodes.begin(), nodes.end(), others.begin(), others.end(),
                        std::inserter(rest, rest.end()));
    return rest;
}

void check_ring(const CorosyncView &view, uint32_t local, Findings &findings) {
    if (!view.ring.contains(local)) {
        findings.add(Level::critical, "this node, " + node_text(local) + ", is not in the ring",
                     "corosync-cfgtool -s, and journalctl -u corosync -e");
        return;
    }
    const std::set<uint32_t> missing = without(view.listed, view.ring);
    if (!missing.empty()) {
        findings.add(Level::warning,
                     "of the nodelist, not in the ring with this node: " + nodes_text(missing),
                     "corosync-cfgtool -s; and there: " + std::string(status_command));
        return;
    }
    findings.add(Level::ok,
                 node_text(local) + " is in a ring of " + counted(view.ring.size(), "node"));
}

void check_group(const Facts &facts, uint32_t local, Findings &findings) {
    const CorosyncView &view = facts.corosync;
    std::set<uint32_t> present;
    std::size_t daemons = 0;
    for (const auto &[node, processes] : view.group) {
        present.insert(node);
        daemons += processes.size();
        if (processes.size() > 1) {
            findings.add(node == local ? Level::critical : Level::warning,
                         node_text(node) + " has " + counted(processes.size(), "daemon") +
                             " in the group: the cluster counts it so often",
                         node == local ? "systemctl status " DUSKVALE_IDENT
                                         " shows the one to keep; end the others"
                                       : "there: duskvalectl doctor");
        }
    }
    if (!present.contains(local) && facts.unit.waits_for_ring()) {
        findings.add(Level::warning, "this node's daemon is not in the group " DUSKVALE_CPG_GROUP
                                     " yet: it is about to start");
    } else if (!present.contains(local)) {
        findings.add(Level::critical, "no daemon of this node is in the group " DUSKVALE_CPG_GROUP,
                     "systemctl start " DUSKVALE_IDENT);
    }
    std::set<uint32_t> absent = without(view.ring, present);
    absent.erase(local);
    if (!absent.empty()) {
        findings.add(Level::warning, "in the ring, but without a daemon: " + nodes_text(absent),
                     "there: duskvalectl doctor");
    } else if (present.contains(local)) {
        findings.add(Level::ok, counted(daemons, "daemon") + " in the group " DUSKVALE_CPG_GROUP);
    }
}

} // namespace

void check_corosync(const Facts &facts, Findings &findings) {
    const CorosyncView &view = facts.corosync;
    switch (view.answer) {
    case CorosyncAnswer::not_running:
        findings.add(Level::critical, "corosync is not running",
                     "systemctl start corosync; if it ends: journalctl -u corosync -e");
        return;
    case CorosyncAnswer::none_in_time:
        findings.add(Level::critical, "corosync runs, but does not answer: stopped or starved",
                     status_command);
        return;
    case CorosyncAnswer::not_permitted:
        findings.add(Level::unknown, "corosync runs; the ring and the group it shows only to root",
                     "sudo duskvalectl doctor");
        return;
    case CorosyncAnswer::failed:
        findings.add(Level::unknown, "corosync could not be asked: " + printable(view.fault),
                     status_command);
        return;
    case CorosyncAnswer::given:
        break;
    }
    const uint32_t local = view.local == 0 && facts.daemon ? facts.daemon->local_node : view.local;
    if (local == 0) {
        findings.add(Level::unknown,
                     "which of the ring's nodes this one is, is not known: " +
                         nodes_text(view.ring),
                     "give the nodes ids in the nodelist of /etc/corosync/corosync.conf");
        return;
    }
    check_ring(view, local, findings);
    check_group(facts, local, findings);
}

} // namespace ctl
