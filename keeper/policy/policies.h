/*
 * The policies, each with what it remembers. take() is called for each input, whatever it is about,
 * and says by Turn::due() what it waits for: so nothing that a policy waits for can be forgotten.
 * The order is that of Keeper::handle().
 */
#pragma once

#include "client/handle.h"
#include "keeper/policy/known.h"

namespace keeper {

/*
 * View: what the keepers know of each other. Each reports on every change, and every 10 s. Corosync
 * refuses multicasts now and then, and the daemon does not say so. But what corosync takes comes
 * back: a text of our own that is not back after 300 ms was refused, and another report follows, at
 * most three times.
 */
struct View {
    /* Leaves Turn::text, before the policies. */
    void receive(Turn &turn);
    void take(Turn &turn);

    uint64_t sequence = 0, back = 0; /* of our last text, and of the last that came back */
    unsigned tries = 0;              /* texts since the last that came back */
    std::optional<Report> reported;  /* the last one since the daemon appeared */
    Time sent_at{};
    bool greeted = false; /* our hello came back, so the others have heard it */
    bool asked = false;   /* another keeper said hello */
};

/*
 * The run steps of this node, followed from what the daemon announces. Its InTransition is of no
 * use: it is false while a remembered sequence runs.
 */
struct Runner {
    /* Keeps Known::steps, leaves Turn::end, and asks for the run directory when a sequence begins.
     */
    void take(Turn &turn);

    void begin(Turn &turn, bool as_start);
    void step(Turn &turn, const std::string &path, const std::string &action, bool begins);
    void end(Turn &turn);
    bool start = false;             /* the role of the sequence that runs */
    bool partial = false;           /* its beginning was not seen */
    std::optional<bool> pending;    /* the role that waits */
    std::set<std::string> begun;    /* paths */
    Steps failed;                   /* the first step that did, if any */
    std::optional<uint32_t> errors; /* the sequence is over, with so many as the daemon counts */
    std::optional<std::vector<std::string>> directory; /* as it was at the beginning */
};

/*
 * Quorum: a node that has lost it stops its services. The daemon's main process gets SIGKILL, which
 * leads to stop-steps within some 20 ms; the unit's next start waits for quorum. The unit is never
 * stopped: nothing would start it again after a corosync that was killed. It looks at levels, not
 * at changes: so it also acts when the keeper starts late. A lost connection is not a lost quorum.
 */
struct QuorumGuard {
    void take(Turn &turn);
    /* Why nothing is done about a lost quorum; empty: the node's services are stopped. */
    static std::string why_off(const Config &config, const Corosync &corosync);

    uint32_t killed = 0; /* this process */
    Time killed_at{};
};

/*
 * Stall: a master whose daemon or corosync hangs is replaced by the others and must not serve on.
 * Each second it sends a keep-alive to the group. When none comes back for longer than corosync
 * needs to form a new ring, the daemon's main process gets SIGKILL, and the unit runs the
 * steps with stop. A call to the daemon would not do: with a frozen corosync it still answers.
 * Nothing is done when the keeper itself was held up, as in a virtual machine that was paused, or
 * when the bus does not answer: then nothing can be known of the daemon. So a node that is frozen
 * as a whole, and goes on later, serves until its corosync learns what happened.
 */
struct Stall {
    void take(Turn &turn);

    Time sent_at{-1'000'000};
    std::optional<Time> missing_since; /* the first keep-alive after the last that came back */
    Time bus_at{};                     /* the last answer of the bus */
    Time due_at{};                     /* when we asked to be called */
};

/*
 * Freeze: a node that joins with another freeze than the cluster's, or with none, changes it on all
 * nodes when its word comes last. That is reported and not undone: a keeper cannot know what the
 * operator wants, and the keepers of two partitions would undo each other's.
 */
struct Freeze {
    void take(Turn &turn);

    std::string warning; /* what was changed, and the command that undoes it */
    using Value = std::pair<NodeId, std::string>; /* 0: not frozen; the reason */
    Value last;
    std::optional<Value> before; /* a join was a moment ago */
    Time joined_at{};
};

/*
 * Failed start: a node whose start steps did not all succeed cannot serve. It is marked unfit, on
 * disk, and hands the role to a fit node; one that watch has marked does the same. A service that
 * fails everywhere would go round for ever; so an unfit node never gets the role from a keeper, and
 * all nodes together make at most three such moves in ten minutes. Otherwise the role stays.
 */
struct Start {
    void take(Turn &turn);

    Time tried_at{-1'000'000}; /* the last move that was asked for */
    std::string stays;         /* why the role stays here, as the log has it */
};

/*
 * Watch: whether the services run. The programs in watch.d run on the master, in rounds, once its
 * start steps have succeeded and while no sequence runs. After some consecutive failures the steps
 * run again: the node takes over from itself or, where the daemon would refuse that, its main
 * process is killed and the unit's restart runs them. If the programs fail again within ten
 * minutes, the node is marked unfit, which only an operator clears: a service that starts well and
 * dies later would go round for ever.
 */
struct Watch {
    void take(Turn &turn);

    void judge(Turn &turn, const WatchRan &round);
    void run_again(Turn &turn, const std::string &failure);
    bool armed = false;   /* the services were seen to run: a failure counts */
    bool running = false; /* a round is */
    bool stale = false;   /* the role has changed since the round began */
    bool none = false;    /* there are no programs */
    Time round_ended{};
    unsigned failures = 0;        /* consecutive rounds */
    std::string logged;           /* the failure that the log has */
    std::optional<Time> asked_at; /* the steps shall run again */
    std::optional<Time> again_at; /* they did */
};

/*
 * Preference: with stay at work the daemon's PreferredMaster is the keeper's means. So what the
 * operator prefers is kept on the keeper's disk, and is the first choice of a hand-over.
 */
void take_preference(Turn &turn);
/* Keeps what the daemon's settings files hold, for repair_settings() (keeper/hold.h). */
void take_settings(Turn &turn);

/*
 * Move: a request is a text that names its target. The first one in message order is under way
 * until a master is applied, or for two seconds; meanwhile all nodes refuse the others, alike. The
 * target takes over; nobody else does anything. A daemon that is to be stopped announces that
 * first, and then hands the role over: so nodes that stop together do not pass it around. A stop
 * that takes longer than the election of the others (0.5 s) and is not handed over is not covered.
 */
struct Move {
    /* Keeps Known::moving and leaves Turn::moved, before the policies. */
    static void follow(Turn &turn);
    void take(Turn &turn);
    /* "to node 2 (beta): an operator asked node 1 (alpha) for it" */
    static std::string describe(const Known &known, const Request &request);

    /* A move that this node asks for; with Why::leaving the stop of its daemon waits for it. */
    struct Asking {
        Why why = Why::asked;
        NodeId target = {}; /* 0: the best other node, once there is one */
        Time since{};
        void *call = nullptr;             /* of our bus object, which waits for it; null: none */
        std::optional<Time> said = {};    /* the others have heard that we are leaving */
        std::optional<Time> sent = {};    /* the request; not before the target is idle */
        bool accepted = false;            /* by all, when the request came back */
        std::optional<Time> applied = {}; /* the target is master; only its word is missing */
    };
    void begin(Turn &turn);
    std::optional<std::string> prepare(Turn &turn);
    std::optional<std::string> outcome(Turn &turn);
    void take_over(Turn &turn);
    void finish(Turn &turn, const std::string &failure);
    std::optional<Asking> asking;
    uint64_t number = 0; /* of the last request */
    /* This node is the target of the move under way. */
    enum class Taking { no, waiting, reading, called, over } taking = Taking::no;
};
/* Within this time the cluster makes only so many moves away from nodes that could not serve. */
constexpr Duration unfit_moves_within{600'000};
constexpr size_t unfit_moves_most = 3;

/*
 * Stay: nothing moves the role without need. In an election slaves tie with their master, and the
 * order of delivery decides; a preferred master gains 10 with every election that it starts. So the
 * master is preferred, and nobody else is. The order of the writes matters, since each starts an
 * election in which only the writer gains: when a slave cleared its preference after the master had
 * set its own, the role moved in 9 of 12 tries. So slaves clear theirs first, and the master writes
 * last: again after each slave that had something to clear, within the half second for which that
 * slave's election lasts. Its report says so at once. It also writes after a join: of the elections
 * that a join brings the last one ends in a tie when the master's sync is delivered between its
 * last gain and the last start, which took up to 20 ms on a busy machine. In the election that a
 * write starts that cannot be: start and sync have one sender, and so come in their order. A write
 * long after the last change is announced first: a take-over during its election can end daemons,
 * so a request that comes later has to wait, and one that came earlier holds the write back.
 */
struct Stay {
    void take(Turn &turn);
    static std::string why_off(const Known &known);

    std::string why_write(Turn &turn);
    NodeId joined = {}; /* a moment ago; 0: none */
    Time joined_at{};
    bool clearing = false; /* a slave that is preferred: the daemon is read first */
    std::string off = "unknown", logged = off; /* why it does nothing, and what the log has */
    Time off_since{};
};

/*
 * Whether all is well, for all commands alike. CRITICAL: nobody serves, or a step of the master
 * failed or hangs. WARNING: another fault would be one too many. UNKNOWN: the keeper cannot know,
 * as when it was started beside a running master.
 */
Verdict judge(Turn &turn, const std::string &freeze_changed);

} // namespace keeper
