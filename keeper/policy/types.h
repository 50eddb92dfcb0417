/*
 * What the keeper's machine hears of and what it asks for, as values. The edges turn the world into
 * inputs and carry out what is asked for; nothing here does I/O or reads a clock.
 *
 * Order matters in both directions. What the daemon announces and its answer to read_snapshot() are
 * given in the order in which the bus delivered them. All calls to the daemon go over one
 * connection, so that it handles them in their order, too.
 */
#pragma once

#include "client/announcement.h"
#include "client/node-id.h"
#include "client/snapshot.h"

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace keeper {

using client::FrozenMaster;
using client::Joined;
using client::KeepAlive;
using client::Left;
using client::NewMaster;
using client::NodeId;
using client::StepBegin;
using client::StepEnd;
using client::StepsDone;
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

/* All that the keeper keeps on disk; it is always written as a whole. Empty: nothing is known. */
struct Stored {
    /* Why this node must not become master, in words, such as "10-db.run failed with status 3"; and
       who found that: "watch", the watch programs, or "start", a step that failed. */
    std::string unfit = {}, unfit_by = {};
    std::string preferred = {}; /* by the operator: "true" or "false" */
    /* What the daemon's settings files hold, by what it announced last. */
    std::string preferred_file = {}, frozen_file = {};
    bool operator==(const Stored &) const = default;
};

/* What a node's run steps are doing; while its daemon does not run: what its stop-steps did. */
enum class Phase {
    unknown,
    none, /* the daemon has not applied a master yet */
    running,
    settled,
    failed,
    not_runnable,
    stopping,
    stopped,
    stop_failed,
    last = stop_failed
};
struct Steps {
    Phase phase = Phase::unknown;
    std::string step = {}; /* the name of the one that runs, failed or cannot run */
    int status = 0;        /* the wait status of the one that failed */
    Time since{};          /* as an age on its way */
    bool operator==(const Steps &) const = default;
};

enum class Quorum { unknown, yes, no, last = no };

enum class Why { asked, leaving, unfit, again, last = again };

/* A node asks another one to take over. */
struct Request {
    NodeId from = {};   /* as the text that has it says */
    NodeId target = {}; /* 0: nothing is asked for */
    Why why = Why::asked;
    uint64_t number = 0; /* of the asking node's requests */
    bool operator==(const Request &) const = default;
};

/* What a keeper says of its node, in each text. */
struct Report {
    Request request;
    NodeId master = {};
    Steps steps;
    Quorum quorum = Quorum::unknown;
    std::string unfit;      /* the reason of the mark; empty: not marked */
    bool leaving = false;   /* its daemon is being stopped */
    bool wanted = false;    /* preferred by the operator */
    bool preferred = false; /* the daemon's PreferredMaster */
    bool settling = false;  /* is about to write that, to stay */
    bool stay = false;      /* takes part in stay */
    bool operator==(const Report &) const = default;
};

/* ---- Inputs, besides what the daemon announces ---- */

/* The timer asked for with next_wake() is due. */
struct Tick {};

/* The first input: what the disk held, and why it could not be read. */
struct DiskRead {
    Stored stored;
    std::string problem = {};
};
/* The answer to store(): why it is not on the disk. */
struct DiskWritten {
    std::string problem;
};

/* The daemon's bus name has an owner, or another one. */
struct DaemonAppeared {};
struct DaemonVanished {};

/* The answer to read_snapshot(). An answer with an error is not given: the name then vanishes, or
   the next reading succeeds. */
using SnapshotRead = client::Snapshot;

/* The answer to ping_bus(), from the bus itself. */
struct BusAnswered {};
/* The answer to read_run_directory(): the *.run entries of the run directory, as paths. */
struct RunDirectoryRead {
    std::vector<std::string> steps;
};

/* From libquorum and libcmap, on each change. One that does not answer is a lost connection: the
   rest is then as it was. */
struct Corosync {
    bool connected = false;
    bool quorate = false;
    std::vector<NodeId> ring = {}; /* the nodes that it sees, this one included */
    NodeId local = {};
    std::map<NodeId, std::string> nodes = {}; /* the node list; names may be empty */
    bool votequorum = false;
    bool two_node = false;
    bool tie_breaker = false; /* auto_tie_breaker */
    unsigned votes = 0;       /* expected, with the device's */
    Duration token{1000};     /* as they are in use: runtime.config.totem */
    Duration consensus{1200};
    Duration device_sync{0}; /* quorum.device.sync_timeout; 0 without a device */
    bool operator==(const Corosync &) const = default;
};

/* From systemd, on each change of the daemon's unit. */
struct UnitChanged {
    uint32_t main_pid = 0;          /* 0: it has no main process */
    Phase stop_steps = Phase::none; /* since the last main process ended */
    bool aborted = false;           /* the last main process ended with SIGABRT */
    bool operator==(const UnitChanged &) const = default;
};

/* The answer to run_watch_programs(), when the last of them has ended or was ended at its limit. */
struct WatchRan {
    struct Result {
        std::string program = {}; /* its file name */
        bool ok = false;
        std::string reason = {}; /* unless ok, such as "status 2: no answer on port 5432" */
        bool not_run = false;    /* it could not be started, which says nothing of the service */
    };
    std::vector<Result> results; /* empty: there are no programs */
};

/* A method of the keeper's own bus object; each `call` is answered once. */
struct Asked {
    enum What { move, hand_over, fit, prefer } what = move;
    void *call = nullptr; /* names it for World::answer() */
    NodeId target = {};   /* of a move; 0: the keeper chooses */
    bool on = false;      /* prefer */
};

using Input = std::variant<Tick, DiskRead, DiskWritten, DaemonAppeared, DaemonVanished,
                           SnapshotRead, NewMaster, FrozenMaster, Joined, Left, KeepAlive,
                           client::Text, client::Hotplug, StepBegin, StepEnd, StepsDone,
                           BusAnswered, RunDirectoryRead, Corosync, UnitChanged, WatchRan, Asked>;

/* ---- What can be done ---- */

/* The calls are carried out in their order, and lead to inputs only later. */
class World {
public:
    virtual ~World() = default;
    virtual void send_text(const std::string &text) = 0; /* the daemon's SendMessage */
    virtual void send_keep_alive() = 0; /* the daemon's KeepAlive; no answer is wanted */
    virtual void ping_bus() = 0;        /* a call to the bus itself, not to the daemon */
    virtual void take_over() = 0;
    virtual void write_preferred(bool on) = 0;
    virtual void read_snapshot() = 0;
    virtual void read_run_directory() = 0;
    virtual void run_watch_programs() = 0;
    virtual void kill_daemon() = 0; /* SIGKILL to its main process, through systemd */
    virtual void store(const Stored &stored) = 0;
    /* What was done, or why not. */
    virtual void answer(void *call, bool ok, const std::string &text) = 0;
    /* One line for the journal; the priority as in syslog(3). */
    virtual void log(int priority, const std::string &text) = 0;
};

/* ---- What is found ---- */

enum class Level { ok, unknown, warning, critical }; /* the worst last */
struct Verdict {
    Level level = Level::unknown;
    std::vector<std::string> causes = {}; /* the worst first; if OK, who is master */
};

} // namespace keeper
