/*
 * A cluster in one process: N real coordinators on a fake group and a virtual clock in ms.
 *
 * The group has one order of messages and membership changes for each island (the nodes that reach
 * each other). A multicast waits in the sender's outbox until the group orders it; then it is
 * in the inbox of every member, and each node takes from its inbox at its own pace. Nodes that stay
 * together through a change have the same messages before it.
 */
#pragma once

#include "client/announcement.h"
#include "client/snapshot.h"
#include "coordinator/duskvale-corosync.h"
#include "cpg/duskvale-gcpg.h"
#include "dbus/duskvale-dbus.h"
#include "devices/duskvale-lumacrates.h"
#include "run/duskvale-run.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace sim {

/* One entry of the order: a message, or a change of the membership as one member hears it. */
struct Event {
    uint64_t number = 0;
    uint64_t cause = 0; /* the event whose handling sent this message; 0: a timer or a request */
    uint32_t sender = 0;
    std::optional<std::string> message = {};
    std::vector<uint32_t> left = {}, joined = {}, members = {};
    bool merge = false;  /* some that joined ran before, in another island */
    uint32_t frozen = 0; /* what the sender held mastership to be frozen to */
};

struct Timer {
    uint64_t due;
    guint interval;
    std::function<gboolean()> call;
};

/* A run step of a node. Unless a test says otherwise a node has none, and a sequence is done at
   once. */
struct Step {
    std::string name;
    guint ms = 0; /* how long it runs */
    int wait_status = 0;
};

/* One process. What the fake sub-objects know is kept here too. */
struct Node {
    uint32_t id = 0; /* two processes on one machine have the same */
    class Cluster *cluster = nullptr;
    int island = 0;
    uint64_t restart_at = 0; /* 0: not to be restarted */
    unsigned aborts = 0;
    std::string log; /* and, indented, what was announced and which sequences of steps began */

    /* Faults. */
    std::string fails;   /* the function of a sub-object that fails in the construction */
    bool paused = false; /* the process is stopped; the group is not */
    bool held = false;   /* the group is slow to order what this node sends */
    std::function<bool(char)> refuses; /* by message type */

    std::vector<Step> steps; /* in order of their names */
    std::vector<DuskvaleLumacrateInfo> devices;

    /* The properties; the preference and the freeze are on disk and outlive the process. The count
       of the devices is filled in by Cluster::read() only. */
    client::Snapshot bus;
    /* A client of the bus. It is called while the daemon's code runs, and so must only take a note
       and make its own calls later, as on a bus. */
    std::function<void(const client::Announcement &)> listener;

    DuskvaleCorosync *daemon = nullptr; /* null: not running */
    DuskvaleRun *runner = nullptr;
    gpointer user_data = nullptr;
    const DuskvaleGCpgAgents *group = nullptr;
    const DuskvaleDBusAgents *requests = nullptr;
    const DuskvaleRunAgents *step_agents = nullptr;
    const DuskvaleLumacratesAgents *device_agents = nullptr;
    bool running = false;            /* a sequence of steps */
    std::optional<gboolean> pending; /* the role of the next one */
    std::map<guint, Timer> timers;
    guint add_timer(guint interval, std::function<gboolean()> call);

    bool member = false;
    std::deque<std::shared_ptr<const Event>> inbox;
    std::deque<Event> outbox; /* not numbered yet */
    uint64_t handling = 0;    /* number of the event being handled */
};

class Oracle;

class Cluster {
public:
    /* Nodes 1 to `count`, none of them running. */
    explicit Cluster(unsigned count);
    ~Cluster();
    Cluster(const Cluster &) = delete;
    Cluster &operator=(const Cluster &) = delete;
    Node &operator[](uint32_t key) { return nodes.at(key); }

    /* Starts the daemon of a node; it does not run when its construction fails. */
    Cluster &start(uint32_t key);
    /* Starts all: node 1 first and for five seconds, so that it is master and ahead of the others.
     */
    Cluster &boot();
    /* The process ends; what it has sent is still ordered. */
    Cluster &stop(uint32_t key);
    /* The machine ends: what is not ordered yet is lost. */
    Cluster &crash(uint32_t key);
    /* Those in none of the islands are together. */
    Cluster &cut(const std::vector<std::set<uint32_t>> &islands);
    Cluster &heal() { return cut({}); }
    /* Puts a message of a stranger, node 9, into the order of node 1's island. */
    Cluster &inject(const std::string &message);
    Cluster &pause(uint32_t key, bool on = true) { return nodes.at(key).paused = on, *this; }
    Cluster &hold(uint32_t key, bool on = true) { return nodes.at(key).held = on, *this; }
    /* Refuses what the node sends of this type; 0: nothing. */
    Cluster &refuse(uint32_t key, char type);
    /* `apply` changes who is a member of which island. */
    void change(const std::function<void()> &apply);

    /* The requests of the bus, with its refusals. */
    Cluster &take_over(uint32_t key) { return ask(key, true, &DuskvaleDBusAgents::take_over); }
    Cluster &give_back(uint32_t key) { return ask(key, true, &DuskvaleDBusAgents::give_back); }
    Cluster &freeze(uint32_t key, const char *why = "") { return set_freeze(key, true, why); }
    Cluster &lift(uint32_t key, const char *why = "") { return set_freeze(key, false, why); }
    Cluster &prefer(uint32_t key, bool preferred);
    /* One that the bus object never refuses, such as &DuskvaleDBusAgents::keep_alive. */
    template <typename Slot, typename... Args>
    Cluster &call(uint32_t key, Slot slot, Args... args) {
        Node &node = nodes.at(key);
        if (node.daemon != nullptr) {
            as(node, [&] { (node.requests->*slot)(node.user_data, args...); });
        }
        return *this;
    }
    client::Snapshot read(uint32_t key); /* all properties */
    bool accepted = true;                /* the last request was */

    /* One turn of a node's main loop: one event of its inbox, then the timers that are due. */
    bool turn(Node &node);
    /* Orders the next message of a node's outbox. */
    bool order(Node &node);
    /* Until no node can do anything at this instant. Nobody lags, and the group orders in rounds:
       what node 1 has sent, what node 2 has sent, and so on; answers follow in the next round. */
    Cluster &settle();
    /* Settles, and lets the time pass from timer to timer. */
    Cluster &run(uint64_t ms);
    /* When the next timer or restart is due; UINT64_MAX: never. */
    uint64_t next_due() const;
    void restart_due();
    /* No message under way, no election running. */
    bool quiet() const;

    /* Runs `call` as the code of a node, whose process ends if it aborts. */
    void as(Node &node, const std::function<void()> &call);
    std::vector<uint32_t> reached(const Node &node) const;
    /* The masters that the running nodes name, in order of the nodes: "1 1 -" */
    std::string masters() const;

    uint64_t now = 0;
    uint64_t restart_after = 0;  /* how soon an aborted daemon is started again; 0: never */
    std::map<char, size_t> sent; /* multicasts that were ordered, by type */
    std::map<uint32_t, Node> nodes;
    Oracle *oracle = nullptr; /* hears what happens to the nodes */

private:
    Cluster &ask(uint32_t key, bool unless_frozen, const std::function<void(Node &)> &request);
    Cluster &ask(uint32_t key, bool unless_frozen, int (*DuskvaleDBusAgents::*slot)(gpointer)) {
        return ask(key, unless_frozen, [slot](Node &n) { (n.requests->*slot)(n.user_data); });
    }
    Cluster &set_freeze(uint32_t key, bool wanted, const char *reason);
    void flush(Node &node) {
        while (order(node)) {
        }
    }
    void end(Node &node);
    uint64_t events = 0;
};

extern Node *current;    /* whose code runs; null outside of Cluster::as() */
extern int live_objects; /* of the fake sub-objects; the leak checker does not see them */
extern bool debug_lines; /* whether debug lines are written */
extern bool trace;       /* whether the log is printed, with debug lines */

/* The 32-bit word at `offset` of a message. */
uint32_t u32(const std::string &message, size_t offset);
/* A message of `type` whose payload is these words. */
std::string words(char type, const std::vector<uint32_t> &payload = {});

} // namespace sim
