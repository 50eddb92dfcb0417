/* The making of a coordinator. */
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

} // namespace
} // namespace sim
