/*
 * What happens to a node and its cluster: a type for each thing, and one sentence for each
 * (sentence.h). The journal holds the past in these (table.h), the bus what happens now.
 */
#pragma once

#include "client/announcement.h"

#include <cstdint>
#include <string>
#include <variant>

namespace ctl {

using client::FrozenMaster, client::Joined, client::Left, client::NewMaster, client::NodeId;
using client::Reason;

/* ---- the daemon of this node ---- */

struct DaemonStarted {};
/* The id that corosync has for this node. */
struct LocalNode {
    NodeId node = 0;
};
/* One end of the daemon may be reported several times: by itself and by its service manager. */
struct DaemonEnded {
    std::string how; /* "was killed by signal 9 (Killed)" */
};
/* Something that an operator's duskvalectl asked the daemon for. */
struct OperatorRequest {
    std::string user;
    std::string command;
};

/* A line of this node's keeper: what it did, and why. */
struct KeeperLine {
    std::string text;
};

/* ---- the group ---- */

/* The group has changed; who came and went follows. */
struct GroupChanged {};
/* A node came or went, and no election follows. */
struct StayedFrozen {
    NodeId node = 0;
    std::string how; /* "JOINED" or "LEFT" */
    NodeId frozen = 0;
};

/* ---- mastership; client::NewMaster is a master that was applied, perhaps the same again ---- */

struct ElectionEnded {
    std::string how; /* "stays" or "should be" */
    NodeId winner = 0;
    bool preferred = false; /* the winner */
};
/* A node asks the others to take mastership from the master. */
struct GaveBack {
    NodeId sender = 0;
};
/* An answer to an election names another master than this node does. The daemon aborts. */
struct MastersDisagree {
    NodeId sender = 0;
    NodeId here = 0;
    NodeId there = 0;
};

/* What else the daemon and its unit report. */
struct Remark {
    std::string text;
    bool trouble = false;
};

using Event = std::variant<DaemonStarted, LocalNode, DaemonEnded, OperatorRequest, KeeperLine,
                           GroupChanged, StayedFrozen, ElectionEnded, GaveBack, MastersDisagree,
                           Remark, client::Joined, client::Left, client::NewMaster,
                           client::FrozenMaster, client::StepBegin, client::StepEnd,
                           client::StepsDone, client::Hotplug, client::KeepAlive, client::Text>;

inline Event to_event(const client::Announcement &announcement) {
    return std::visit([](const auto &same) { return Event(same); }, announcement);
}

/* When the journal took an entry, in microseconds. */
struct Stamp {
    int64_t realtime = 0;  /* since 1970 */
    int64_t monotonic = 0; /* since the boot */
    std::string boot;
};

/* The span between them, at least 0; by the clock that nobody sets where both are of one boot. */
int64_t microseconds_between(const Stamp &from, const Stamp &to);

struct Record {
    Stamp time;
    int daemon = 0; /* the process whose line or output it is; 0 for others */
    Event event;
};

} // namespace ctl
