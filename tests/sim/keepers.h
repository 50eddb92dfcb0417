/*
 * A cluster with keepers: each node has the keeper's machine beside its daemon, and around both what
 * a machine has: a unit that starts the daemon again, a service that the run steps start and stop,
 * corosync's quorum, a disk.
 */
#pragma once

#include "cluster.h"
#include "keeper/policy/keeper.h"

#include <random>

namespace sim {

struct Machine {
    std::unique_ptr<keeper::Keeper> keeper; /* null: none runs */
    keeper::Stored disk;
    std::deque<std::pair<uint64_t, keeper::Input>> inputs; /* when each arrives */
    std::map<uint64_t, keeper::Answer> answers;
    std::string log;
    bool down = false; /* the whole machine */

    /* The service, and the one step that starts and stops it. */
    bool serves = false;
    bool start_fails = false;
    uint64_t dies_after = 0; /* so long after each start; 0: it does not */
    uint64_t dies_at = UINT64_MAX;
    uint64_t step_ms = 50;
    uint64_t step_ends = UINT64_MAX;
    bool step_starts = false;
    std::optional<bool> pending;

    /* What the keeper has seen. */
    const void *daemon = nullptr;
    bool looked = false; /* at all, since it started */
    uint32_t process = 0;
    keeper::QuorumChanged quorum;
};

class Kept : public Cluster {
public:
    /* With a keeper on the first `keepers` nodes. With a seed, things happen in random order, and
       inputs reach the keepers late. */
    explicit Kept(unsigned count, uint64_t seed = 0, unsigned keepers = UINT32_MAX);
    ~Kept() { oracle = nullptr; }

    /* All of these let no time pass. */
    Kept &start_all();
    Kept &start_keeper(uint32_t key);
    Kept &stop_keeper(uint32_t key);
    Kept &reboot(uint32_t key, uint64_t ms); /* the machine is off for so long */
    Kept &restart(uint32_t key, uint64_t ms) { return end_daemon(key, ms); }
    Kept &kill_service(uint32_t key) { return machines[key].serves = false, *this; }
    /* A call of the keeper's bus object; its number. */
    template <typename What>
    uint64_t ask(uint32_t key, What what) {
        give(key, keeper::Asked{++calls, what});
        return calls;
    }
    /* As `systemctl stop` does it: asks for the hand-over and stops when that is answered. */
    Kept &systemctl_stop(uint32_t key, uint64_t start_again_after);

    Kept &run(uint64_t ms);
    /* "1 serves", or "1 2 serve", or "nobody serves" */
    std::string service() const;
    std::string answer(uint32_t key, uint64_t call);
    unsigned pick(unsigned limit) { return static_cast<unsigned>(random() % limit); }

    std::map<uint32_t, Machine> machines;
    std::vector<std::pair<uint64_t, uint32_t>> take_overs; /* when, on which node: by keepers */
    std::vector<std::string> faults;                       /* what must never happen, and did */
    uint64_t changes = 0;                                  /* of the master, as node 1.. see it */

private:
    Kept &end_daemon(uint32_t key, uint64_t start_again_after);
    void give(uint32_t key, keeper::Input input);
    void hear(uint32_t key);
    void watch_unit(uint32_t key);
    void watch_quorum();
    bool live(uint32_t key);
    bool keep(uint32_t key);
    void carry_out(uint32_t key, const keeper::Action &action);
    void run_steps(uint32_t key, bool start);
    uint64_t next(uint32_t key) const;

    std::mt19937_64 random;
    bool shuffled;
    uint64_t calls = 0;
    struct Stop {
        uint64_t call, start_again_after, deadline;
    };
    std::map<uint32_t, Stop> stops;
};

} // namespace sim
