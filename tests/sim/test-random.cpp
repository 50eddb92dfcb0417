/*
 * Seeded random schedules against the oracle. A schedule that fails prints its seed; with
 * --seed it runs alone and its log is printed, with debug lines.
 */
#include "oracle.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <random>

namespace sim {

static uint64_t only_seed = 0; /* 0: all */
static uint64_t schedules = 4000;
extern uint64_t keepers_seed; /* the same for those with keepers */

namespace {

/* What the schedules met, over all of them. */
std::map<std::string, unsigned> tally;

enum class Weather {
    calm,      /* joins, leaves and requests, one at a time, on a group that has become quiet */
    divided,   /* cuts and heals too */
    turbulent, /* at any time, with lagging and paused nodes and refused multicasts */
};

class Schedule {
public:
    explicit Schedule(uint64_t seed)
        : weather(static_cast<Weather>(seed % 3)), random(seed), c(2 + pick(4)) {
        c.oracle = &oracle;
        c.restart_after = 1 + pick(300);
        for (auto &[key, node] : c.nodes) {
            node.bus.preferred = pick(5) == 0;
            c.start(key);
            go_on();
        }
    }

    void play() {
        for (unsigned left = 5 + pick(20); left > 0; --left) {
            act();
            go_on();
        }
        for (auto &[key, node] : c.nodes) {
            node.paused = false;
            node.refuses = nullptr;
        }
        become_quiet();
        if (check(true)) {
            ++tally["schedules that ended in agreement"];
        } else {
            elect_everywhere();
            check(false);
        }
        /* A node that lags may answer a request from before the freeze. */
        EXPECT_TRUE(oracle.moved == 0 || weather == Weather::turbulent)
            << "mastership moved while frozen";
        for (const auto &[reason, count] : oracle.aborts) {
            EXPECT_NE(reason, Oracle::unexplained);
            EXPECT_TRUE(weather != Weather::calm || reason == Oracle::crossed) << reason;
            tally["daemons ended: " + reason] += count;
        }
    }

private:
    unsigned pick(unsigned limit) { return static_cast<unsigned>(random() % limit); }

    uint32_t some_node() { return 1 + pick(static_cast<unsigned>(c.nodes.size())); }

    void act() {
        const uint32_t key = some_node();
        Node &node = c[key];
        const std::function<void()> start_or_end = [&] {
            if (node.daemon != nullptr) {
                pick(2) == 0 ? c.crash(key) : c.stop(key);
                return;
            }
            if (pick(4) == 0) {
                node.bus.frozen_node = 0; /* its settings are lost */
                node.bus.frozen_reason.clear();
            }
            c.start(key);
        };
        const std::function<void()> pause_or_go_on = [&] { node.paused = !node.paused; };
        const std::function<void()> acts[] = {
            start_or_end,
            start_or_end,
            [&] { c.take_over(key); },
            [&] { c.give_back(key); },
            [&] { pick(3) == 0 ? c.freeze(key, "because") : c.lift(key); },
            [&] { c.prefer(key, pick(3) == 0); },
            [&] { c.run(pick(3000)); },
            [&] {
                c.cut({{key, some_node()}, {some_node()}});
            },
            [&] { c.heal(); },
            pause_or_go_on,
            pause_or_go_on,
            [&] {
                node.refuses = [left = 1 + pick(4)](char) mutable {
                    return left > 0 && left-- > 0;
                };
            },
        };
        acts[pick(weather == Weather::calm ? 7 : weather == Weather::divided ? 9 : 12)]();
    }

    void go_on() {
        if (weather == Weather::turbulent) {
            static const unsigned spans[] = {3, 60, 700, 2500};
            jostle(pick(spans[pick(4)]) + 1, 8);
        } else {
            become_quiet();
        }
    }

    /* Lets the group and the nodes work in random order for so long. One step in `pace` the time
       goes on although there is work to do; 0: never. */
    void jostle(uint64_t ms, unsigned pace) {
        const uint64_t end = c.now + ms;
        for (unsigned idle = 0; c.now < end;) {
            Node &node = c[some_node()];
            if (pick(2) == 0 ? c.order(node) : c.turn(node)) {
                idle = 0;
            } else if (++idle > 4 * c.nodes.size() && !work_left()) {
                c.now = std::clamp(c.next_due(), c.now, end);
                idle = 0;
            }
            if (pace != 0 && pick(pace) == 0) {
                c.now = std::min(end, c.now + pick(5));
            }
            c.restart_due();
        }
    }

    bool work_left() {
        return std::any_of(c.nodes.begin(), c.nodes.end(),
                           [](const auto &entry) {
                               const Node &node = entry.second;
                               return !node.outbox.empty() || (!node.paused && !node.inbox.empty());
                           }) ||
               c.next_due() <= c.now;
    }

    void become_quiet() {
        const uint64_t limit = c.now + 60'000;
        do {
            jostle(50, 0);
        } while (!c.quiet() && c.now < limit);
        EXPECT_TRUE(c.quiet()) << "still electing after a minute";
    }

    /* Whether every partition agrees on a master that is a member of it, and on the freeze; where
       not, there must be an excuse. */
    bool check(bool excusable) {
        bool all_agree = true;
        for (auto &[key, node] : c.nodes) {
            if (!node.member || c.reached(node).front() != key) {
                continue;
            }
            const std::vector<uint32_t> members = c.reached(node);
            const uint32_t master = node.bus.master_node;
            bool agree = std::count(members.begin(), members.end(), master) == 1;
            bool same_freeze = true;
            std::string excuse;
            bool freeze_refused = false;
            for (const uint32_t member : members) {
                agree = agree && c[member].bus.master_node == master;
                same_freeze = same_freeze && c[member].bus.frozen_node == node.bus.frozen_node;
                excuse = excuse.empty() ? oracle.excuse(c[member]) : excuse;
                freeze_refused = freeze_refused || oracle.freeze_refused(c[member]);
            }
            EXPECT_TRUE(same_freeze || freeze_refused) << "members hold different freezes";
            if (agree) {
                continue;
            }
            all_agree = false;
            const bool lone_and_frozen = members.size() == 1 && node.bus.frozen_node != 0;
            EXPECT_TRUE((excusable || lone_and_frozen) && !excuse.empty())
                << "the masters are " << c.masters() << (excusable ? "" : " after an election");
            ++tally[excusable ? "excused: " + excuse : "excused: a lone node cannot lift a freeze"];
        }
        return all_agree;
    }

    /* What heals every disagreement: an election, after lifting the freeze. A lone node is refused
       the lift; writing its preference starts an election when it is not frozen. */
    void elect_everywhere() {
        for (auto &[key, node] : c.nodes) {
            if (node.member && c.reached(node).front() == key && !c.lift(key).accepted) {
                c.prefer(key, node.bus.preferred);
            }
        }
        become_quiet();
    }

    Weather weather;
    std::mt19937_64 random;
    Oracle oracle;
    Cluster c;
};

TEST(RandomSchedules, EndInAgreementOrForAKnownReason) {
    const uint64_t first = only_seed != 0 ? only_seed : 1;
    const uint64_t last = only_seed != 0 ? only_seed : schedules;
    trace = only_seed != 0;
    for (uint64_t seed = first; seed <= last && !HasFailure(); ++seed) {
        Schedule(seed).play();
        if (HasFailure()) {
            printf("To follow this schedule: test-sim --seed %lu\n", seed);
        }
    }
    for (const auto &[what, count] : tally) {
        printf("%8u %s\n", count, what.c_str());
    }
}

} // namespace
} // namespace sim

int main(int argc, char **argv) {
    ::testing::InitGoogleTest(&argc, argv);
    const std::map<std::string, uint64_t *> options = {{"--seed", &sim::only_seed},
                                                       {"--keepers-seed", &sim::keepers_seed},
                                                       {"--schedules", &sim::schedules}};
    for (int i = 1; i < argc; i += 2) {
        const auto option = options.find(argv[i]);
        if (option == options.end() || i + 1 == argc) {
            fprintf(stderr, "usage: test-sim [--seed N | --keepers-seed N] [--schedules N]\n");
            return 2;
        }
        *option->second = strtoull(argv[i + 1], nullptr, 10);
    }
    if (sim::only_seed != 0) {
        ::testing::GTEST_FLAG(filter) = "RandomSchedules.*";
    }
    if (sim::keepers_seed != 0) {
        ::testing::GTEST_FLAG(filter) = "*KeptSchedules.*";
    }
    return RUN_ALL_TESTS();
}
