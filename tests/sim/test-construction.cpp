/* The making of a coordinator, and what a join of N nodes costs. */
#include "cluster.h"

#include "base/paths.h"

#include <gmock/gmock.h>

namespace sim {
namespace {

TEST(Construction, ThatFailsIsLoggedAndLeavesNothing) {
    for (const std::string function :
         {"dvcpg_glib_new", "dvcpg_glib_register", "duskvale_lumacrates_new", "duskvale_dbus_new",
          "duskvale_dbus_register"}) {
        Cluster c(1);
        c[1].fails = function;
        EXPECT_EQ(c.start(1)[1].daemon, nullptr);
        EXPECT_EQ(c[1].log, "ERR(duskvale_corosync_new):Failed " + function + "()\n");
        EXPECT_EQ(live_objects, 0);
    }
}

TEST(Construction, GoesOnWithoutARunnerAndMakesOnlyOne) {
    Cluster c(1);
    c[1].fails = "duskvale_run_new";
    EXPECT_EQ(c.start(1).run(500).masters(), "1");
    EXPECT_THAT(c[1].log, ::testing::Not(::testing::HasSubstr("    start\n")));
    c[1].log.clear();
    c[1].fails.clear();
    c.as(c[1], [daemon = c[1].daemon] {
        EXPECT_TRUE(duskvale_corosync_set_agents(daemon, nullptr)) << "makes none";
        EXPECT_TRUE(duskvale_corosync_set_agents(daemon, DUSKVALE_RUN_DIR));
        EXPECT_FALSE(duskvale_corosync_set_agents(daemon, DUSKVALE_RUN_DIR));
    });
    EXPECT_EQ(c[1].log, "ERR(duskvale_corosync_set_agents):duskvale_corosync_set_agents: cannot be "
                        "run twice\n");
}

TEST(Cost, OfAJoinIsTheCubeOfTheNodesUnlessTheyAreFrozen) {
    for (const unsigned n : {3U, 4U, 5U, 8U, 16U, 32U}) {
        Cluster c(n);
        const auto count = [&c](const std::function<void()> &act) {
            c.run(2000).sent.clear();
            act();
            c.settle();
            size_t sum = 0;
            for (const auto &[type, times] : c.sent) {
                sum += times;
            }
            return sum;
        };
        for (unsigned id = 1; id < n; ++id) { /* a frozen group forms cheaply */
            c[id].bus.frozen_node = 1;
            c.start(id);
        }
        c[n].bus.frozen_node = 1;
        const size_t frozen = count([&] { c.start(n); });
        c.stop(n).settle().lift(1);
        c[n].bus.frozen_node = 0;
        const size_t join = count([&] { c.start(n); });
        const size_t leave = count([&] { c.stop(n); });
        EXPECT_EQ(join, n * n * n + 2 * n * n + 2 * n);
        EXPECT_EQ(frozen, n);
        EXPECT_EQ(leave, (n - 1) * n) << "an election start each and an answer each to each";
    }
}

} // namespace
} // namespace sim
