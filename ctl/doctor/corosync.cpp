#include "ctl/doctor/checks.h"

#include "base/paths.h"

#include <algorithm>
#include <iterator>

namespace ctl {

namespace {

using Nodes = std::set<client::NodeId>;

std::string nodes_text(const Nodes &nodes) {
    std::string text;
    for (const client::NodeId node : nodes) {
        text += (text.empty() ? "" : ", ") + node_text(node);
    }
    return text;
}

Nodes without(const Nodes &nodes, const Nodes &others) {
    Nodes rest;
    std::ranges::set_difference(nodes, others, std::inserter(rest, rest.end()));
    return rest;
}

void check_ring(const CorosyncFacts &corosync, client::NodeId local, Findings &findings) {
    const Nodes missing = without(corosync.listed, corosync.ring);
    if (!corosync.ring.contains(local)) {
        findings.critical("this node, " + node_text(local) + ", is not in the ring",
                          "corosync-cfgtool -s, and journalctl -u corosync -e");
    } else if (!missing.empty()) {
        findings.warning("in the nodelist, but not in the ring with this node: " +
                             nodes_text(missing),
                         "corosync-cfgtool -s; and there: systemctl status corosync");
    } else {
        findings.ok(node_text(local) + " is in a ring of " + counted(corosync.ring.size(), "node"));
    }
}

void check_group(const Facts &facts, client::NodeId local, Findings &findings) {
    Nodes present;
    bool one_each = true;
    for (const auto &[node, processes] : facts.corosync.group) {
        present.insert(node);
        if (processes.size() > 1) {
            one_each = false;
            findings.add(node == local ? Level::critical : Level::warning,
                         node_text(node) + " has " + counted(processes.size(), "daemon") +
                             " in the group: the cluster counts each one as a node",
                         node == local ? "systemctl status " DUSKVALE_IDENT
                                         " shows the one to keep; end the others"
                                       : "there: duskvalectl doctor");
        }
    }
    if (!present.contains(local) && facts.unit.waits_for_ring()) {
        findings.warning("this node's daemon is not in the group " DUSKVALE_CPG_GROUP
                         " yet: it is about to start");
    } else if (!present.contains(local)) {
        findings.critical("no daemon of this node is in the group " DUSKVALE_CPG_GROUP,
                          "systemctl start " DUSKVALE_IDENT);
    }
    Nodes absent = without(facts.corosync.ring, present);
    absent.erase(local);
    if (!absent.empty()) {
        findings.warning("in the ring, but without a daemon: " + nodes_text(absent),
                         "there: duskvalectl doctor");
    } else if (present.contains(local) && one_each) {
        findings.ok("each node of the ring has a daemon in the group " DUSKVALE_CPG_GROUP);
    }
}

} // namespace

void check_corosync(const Facts &facts, Findings &findings) {
    const CorosyncFacts &corosync = facts.corosync;
    if (corosync.problem) {
        findings.add(corosync.problem->level, corosync.problem->text, corosync.problem->next);
        return;
    }
    const client::NodeId local =
        corosync.local == 0 && facts.daemon ? facts.daemon->local_node : corosync.local;
    if (local == 0) {
        findings.unknown("it is not known which node of the ring this one is: " +
                             nodes_text(corosync.ring),
                         "give the nodes ids in the nodelist of /etc/corosync/corosync.conf");
        return;
    }
    check_ring(corosync, local, findings);
    check_group(facts, local, findings);
    if (corosync.loss.count() > 0) {
        findings.ok(corosync.loss_text());
    }
    if (!corosync.encrypted && corosync.listed.size() > 1) {
        findings.warning(
            "the ring is not encrypted: anyone who can send packets to it controls what root "
            "runs on each node",
            "corosync-keygen, and crypto_cipher in /etc/corosync/corosync.conf");
    }
}

} // namespace ctl
