/* What the checks of the doctor look at, gathered once. */
#pragma once

#include "ctl/ask/bus.h"
#include "ctl/doctor/finding.h"

#include "client/node-id.h"

#include <map>
#include <optional>
#include <set>
#include <string>

namespace ctl {

/* What corosync on this node knows of the ring and of the daemons' group. */
struct CorosyncFacts {
    std::optional<Finding> problem;   /* why the rest is not known */
    client::NodeId local = 0;         /* this node's id; 0 without a nodelist */
    std::set<client::NodeId> listed;  /* the nodelist of corosync.conf; may be empty */
    std::set<client::NodeId> ring;    /* who is in the ring with this node, itself included */
    bool encrypted = false;           /* the ring */
    std::chrono::milliseconds loss{}; /* from that of a node to its report, by the timers in use */
    /* The processes in the daemons' group, by node. */
    std::map<client::NodeId, std::set<std::string>> group;

    /* While the ring changes, corosync takes no message: the survivors elect in the second period
       of 0.5 s. */
    std::string loss_text() const {
        return "a lost node is noticed after " + duration_text(loss) + " and replaced 1.0 s later";
    }
};

/* What systemd knows of the daemon's unit. */
struct UnitFacts {
    bool booted = false;                           /* systemd is the init system here */
    std::string fault;                             /* why systemctl gave no answer, or "" */
    std::map<std::string, std::string> properties; /* systemd.directives(7); empty with a fault */

    /* Empty for one that is not known. */
    std::string property(const std::string &name) const {
        const auto found = properties.find(name);
        return found == properties.end() ? "" : found->second;
    }
    /* Whether a start is under way that still waits for corosync's ring. */
    bool waits_for_ring() const { return property("SubState") == "start-pre"; }
};

struct Facts {
    CorosyncFacts corosync;
    UnitFacts unit;
    Result<client::Snapshot> daemon = Problem{};
    KeeperView keeper;
};

Facts gather_facts();
/* The part of it that `check` needs. */
CorosyncFacts ask_corosync();
/* Both add what a program of corosync printed. */
void read_cmap(const std::string &text, CorosyncFacts &facts);
void read_groups(const std::string &text, CorosyncFacts &facts);

} // namespace ctl
