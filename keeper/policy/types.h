/*
 * What the keeper's machine is told and what it asks for, as values. The edges turn the world into
 * inputs and actions into calls; nothing here does I/O or reads a clock.
 *
 * Order matters in both directions. What the daemon announces and its answer to ReadSnapshot are
 * given in the order in which the bus delivered them. Actions are carried out in their order, and
 * all calls to the daemon go over one connection, so that it handles them in that order, too.
 */
#pragma once

#include "client/announcement.h"
#include "client/node-id.h"
#include "client/snapshot.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace keeper {

using client::NodeId;
using Duration = std::chrono::milliseconds;
/* A point of time: since an arbitrary start, on CLOCK_MONOTONIC. */
using Time = std::chrono::milliseconds;

enum class Switch { automatic, on, off };

/* From keeper.conf; an empty file gives these values. */
struct Config {
    bool stay = true;
    Switch quorum = Switch::automatic;
    Duration watch_interval{2000}; /* between the end of one round of programs and the next */
    Duration watch_limit{5000};    /* a program that runs for longer is ended and has failed */
    unsigned watch_failures = 2;   /* consecutive ones */
    Duration step_limit{60'000};   /* a step that runs for longer counts as hanging */
    bool stall = true;
    std::string boot; /* not from the file: a word that differs at each start of the keeper */
};

/* Why a node must not become master: on its disk, so that a restart does not forget it. */
struct Unfit {
    enum class Cause { start, watch } cause = Cause::start;
    std::string reason; /* in words, such as "10-db.run failed with status 3" */
    bool operator==(const Unfit &) const = default;
};

/* All that the keeper keeps on disk; it is always written as a whole. */
struct Stored {
    std::optional<Unfit> unfit;
    std::optional<bool> preferred; /* by the operator; none: never asked for, nor found */
    bool operator==(const Stored &) const = default;
};

/* ---- Inputs ---- */

/* The timer asked for with next_wake() is due. */
struct Tick {};

/* The first input: what the disk held. */
struct DiskRead {
    Stored stored;
    std::string problem =
        {}; /* why it could not be read; empty: it was, or there was nothing yet */
};

/* The answer to Store. */
struct DiskWritten {
    std::string problem; /* empty: it is on the disk */
};

/* The daemon's bus name has an owner, or another one. */
struct DaemonAppeared {
    bool ran_before = false; /* it had one already when the keeper started */
};
struct DaemonVanished {};

/* The answer to ReadSnapshot. An answer with an error is not given: the name then vanishes, or the
   next reading succeeds. */
struct SnapshotRead {
    client::Snapshot snapshot;
};

struct Announced {
    client::Announcement announcement;
};

/* The answer to CallTakeOver: false when the daemon refused, or could not be called. */
struct TakeOverAnswered {
    bool accepted = false;
};

/* The answer to PingBus, from the bus itself. */
struct BusAnswered {};

/* The answer to ReadRunDirectory: the *.run entries of the run directory, as paths. */
struct RunDirectoryRead {
    std::vector<std::string> steps;
};

/* From libquorum, on each change. A corosync that does not answer is a lost connection. */
struct QuorumChanged {
    bool connected = false;
    bool quorate = false;          /* of no meaning unless connected */
    std::vector<NodeId> ring = {}; /* the nodes that corosync sees, this one included */
    bool operator==(const QuorumChanged &) const = default;
};

/* From libcmap, at each connection and on each change of these keys. */
struct CorosyncRead {
    struct Node {
        NodeId id = {};
        std::string name; /* empty when the node list has none */
        bool operator==(const Node &) const = default;
    };
    NodeId local = {};
    std::vector<Node> nodes; /* of the node list */
    bool votequorum = false;
    bool two_node = false;
    bool tie_breaker = false; /* auto_tie_breaker */
    unsigned votes = 0;       /* expected, with the device's */
    Duration token{1000};     /* as they are in use: runtime.config.totem */
    Duration consensus{1200};
    Duration device_sync{0}; /* quorum.device.sync_timeout; 0 without a device */
    bool operator==(const CorosyncRead &) const = default;
};

/* From systemd, on each change of the daemon's unit. */
struct UnitChanged {
    bool running = false;  /* it has a main process */
    uint32_t main_pid = 0; /* 0: none */
    enum class StopSteps { none, running, done, failed };
    StopSteps stop_steps = StopSteps::none; /* since the last main process ended */
    bool aborted = false;                   /* the last main process ended with SIGABRT */
    bool operator==(const UnitChanged &) const = default;
};

/* The answer to RunWatchPrograms, when the last of them has ended or was ended at its limit. */
struct WatchRan {
    struct Result {
        std::string program; /* its file name */
        bool ok = false;
        std::string reason;   /* unless ok, such as "status 2: no answer on port 5432" */
        bool not_run = false; /* it could not be started, which says nothing of the service */
    };
    std::vector<Result> results; /* empty: there are no programs */
};

/* A method of the keeper's own bus object; each is answered once, with Answer. */
struct Asked {
    struct Move {
        std::optional<NodeId> target; /* none: the keeper chooses */
    };
    struct HandOver {}; /* the daemon is about to be stopped */
    struct Fit {};
    struct Prefer {
        bool on = false;
    };
    uint64_t id = 0;
    std::variant<Move, HandOver, Fit, Prefer> what;
};

using Input = std::variant<Tick, DiskRead, DiskWritten, DaemonAppeared, DaemonVanished,
                           SnapshotRead, Announced, TakeOverAnswered, BusAnswered, RunDirectoryRead,
                           QuorumChanged, CorosyncRead, UnitChanged, WatchRan, Asked>;

/* ---- Actions ---- */

struct SendText { /* the daemon's SendMessage */
    std::string text;
};
struct SendKeepAlive {}; /* the daemon's KeepAlive; no answer is wanted */
struct PingBus {};       /* a call to the bus itself, not to the daemon */
struct CallTakeOver {};
struct WritePreferred {
    bool on = false;
};
struct ReadSnapshot {};
struct ReadRunDirectory {};
struct RunWatchPrograms {};
/* SIGKILL to the daemon's main process, through systemd. */
struct KillDaemon {
    uint32_t main_pid = 0; /* which one; nothing is done when the unit has another by now */
};
struct Store {
    Stored stored;
};
struct Answer {
    uint64_t id = 0;
    bool ok = false;
    std::string text; /* what was done, or why not */
};
/* For the journal: one line, without a newline. */
struct Log {
    enum class Priority { error = 3, warning = 4, info = 6 } priority = Priority::info;
    std::string text;
};

using Action =
    std::variant<SendText, SendKeepAlive, PingBus, CallTakeOver, WritePreferred, ReadSnapshot,
                 ReadRunDirectory, RunWatchPrograms, KillDaemon, Store, Answer, Log>;
using Actions = std::vector<Action>;

/* ---- What is published ---- */

/* A node as this node's keeper knows it. */
struct NodeStatus {
    NodeId id = {};
    std::string name = {}; /* empty when the node list has none */
    enum class Role { unknown, master, slave, down } role = Role::unknown;
    /* What its run steps are doing: "settled", "running", "failed", "not-runnable" or "unknown";
       and while its daemon does not run "stopping", "stopped" or "stop-failed". */
    std::string steps = "unknown";
    std::string step;                 /* the name of the step that runs, failed or cannot run */
    int status = 0;                   /* the wait status of the one that failed */
    std::optional<Time> since;        /* of `steps` */
    std::optional<std::string> unfit; /* why the role cannot be moved to it; none: it is fit */
    enum class Quorum { unknown, yes, no, last = no } quorum = Quorum::unknown;
    bool member = false;    /* of the daemons' group, as far as it is known */
    bool listed = false;    /* in corosync's node list */
    bool preferred = false; /* by the operator */
    bool leaving = false;
    std::optional<Time> heard; /* its keeper's last text; none: never, or it is this node */
    bool operator==(const NodeStatus &) const = default;
};

struct Verdict {
    enum class Level { ok, warning, critical, unknown } level = Level::unknown;
    std::vector<std::string> causes; /* the worst first; one that is OK says who is master */
    bool operator==(const Verdict &) const = default;
};

struct Published {
    NodeId local = {};             /* 0 while neither corosync nor the daemon has named it */
    std::vector<NodeStatus> nodes; /* by id */
    Verdict verdict;
    NodeId master = {};         /* 0: none known */
    NodeId frozen = {};         /* 0: not frozen */
    std::string freeze_changed; /* what a join did to the freeze, with the command that undoes it */
    std::string stay;           /* "on", or why it does nothing */
    std::string quorum;         /* "on", or why the keeper does nothing about a lost quorum */
    std::string moving;         /* the move under way, in words; empty: none */
    uint64_t failed_steps = 0;  /* these three: on this node, since the keeper started */
    uint64_t master_changes = 0;
    uint64_t aborts = 0;
    bool operator==(const Published &) const = default;
};

} // namespace keeper
