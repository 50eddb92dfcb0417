/* Take-over, give-back, freeze, membership, the sync counter, and the construction. */
#include "script.h"

#include "base/paths.h"

namespace {

TEST(TakeOver, CountsWhenItIsDeliveredAndTheLastOneWins) {
    Booted c(3);
    std::string text = outcome("asked for", c.hold(2).take_over(2).settle());
    text += outcome("delivered", c.hold(2, false).settle());
    expect_golden("take-over", text);
    EXPECT_EQ(c.take_over(1).take_over(3).settle().masters(), "3 3 3");
}

TEST(GiveBack, IsAnsweredByEverySlaveButTheSenderAndTheLastOneWins) {
    Booted c(3);
    std::string text = outcome("by the master", c.give_back(1).settle());
    text += outcome("by a slave", c.give_back(1).settle());
    c.inject(words('G', {1, 0, 0})).settle();
    text += outcome("of node 1, but sent by node 9: what counts is the sender", c);
    Cluster young(2);
    text += outcome("before the first election",
                    young.start(1).start(2).settle().give_back(1).settle());
    expect_golden("give-back", text);
}

TEST(Freeze, IsKeptOnEveryNodeAndStopsElections) {
    Booted c(3);
    std::string text = outcome("by a slave", c.freeze(3, "disk swap").settle());
    text += outcome("node 3 is preferred", c.prefer(3, true).settle());
    text += outcome("the master is lost", c.crash(1).settle());
    text += outcome("it comes back", c.start(1).settle());
    text += outcome("lifted: the preference counts now", c.lift(2, "done").run(500));
    c.inject(words('F', {2}) + "other" + '\0').settle();
    text += outcome("to node 2, which is not the master and does not become it", c);
    expect_golden("freeze", text);
}

TEST(Membership, TellsDeparturesBeforeArrivals) {
    Cluster c(3);
    c.cut({{1, 2}, {3}}).boot().cut({{1, 3}, {2}}).turn(c[1]);
    EXPECT_THAT(c[1].take_signals(), ElementsAre("Left 2, now 2", "Joined 3, now 2"));
}

TEST(Sync, MakesTheSlavesCarryTheCounterOfTheirMasterOnly) {
    Booted c(2);
    const auto counter = [&c](uint32_t id) {
        c.give_back(id); /* carries it; not sent */
        const uint32_t result = sim::u32(c[id].outbox.back().first, 12);
        c[id].outbox.clear();
        return result;
    };
    EXPECT_EQ(counter(1), 7U);
    EXPECT_EQ(counter(2), 7U);
    c.inject(words('s', {9, 0, 70})).settle();
    EXPECT_EQ(counter(2), 7U) << "from a node that is not its master";
    c.inject(words('s', {1, 0, 3})).settle();
    EXPECT_EQ(counter(2), 3U) << "from its master, also when lower";
    EXPECT_EQ(counter(1), 7U);
    c.run(2000);
    EXPECT_EQ(c.sent['s'], 2U) << "only the master sends it";
}

TEST(Sync, GrowsByOneASecondAndByElevenOnAPreferredMaster) {
    for (const bool preferred : {false, true}) {
        Cluster c(1);
        c[1].preferred = preferred;
        c.start(1).run(999);
        const std::string line = "DBG(DUSKVALE): sync_timer_callback: local.sync_counter = ";
        /* Its join and the unfreeze that followed gave the preferred one 10 each. */
        EXPECT_EQ(debug_log(c[1], [&c] { c.run(1001); }),
                  line + (preferred ? "31\n" : "1\n") + line + (preferred ? "42\n" : "2\n"));
    }
}

TEST(Message, OfUnknownTypeOrCutShortIsDiscardedWithAnErrorLine) {
    Booted c(1);
    const auto log_of = [&c](const std::string &message) {
        return c.inject(message).settle()[1].take_log();
    };
    const std::string discards = "ERR(handle_got_message):From 9: Message ";
    const std::string nul(1, '\0');
    EXPECT_EQ(log_of(""), discards + "without a type. Discarding (0 bytes)\n");
    EXPECT_EQ(log_of("Zap"), discards + "mtype=90(Z) without handler. Discarding (3 bytes)\n");
    EXPECT_EQ(log_of(nul),
              discards + "mtype=0(" + nul + ") without handler. Discarding (1 bytes)\n");
    for (const std::string &message :
         {std::string("1"), std::string("K.."), words('M', {2, 0}), words('G', {2, 0}),
          words('s', {2, 0}), words('P', {2, 0, 1}), words('T') + "x", words('F', {2}),
          words('A', {2})}) {
        EXPECT_EQ(log_of(message),
                  "ERR(discard_malformed):From 9: Message mtype=" + std::to_string(message[0]) +
                      "(" + message[0] + ") is malformed. Discarding (" +
                      std::to_string(message.size()) + " bytes)\n");
    }
    EXPECT_TRUE(c[1].signals.empty());
}

TEST(Construction, ThatFailsIsLoggedAndLeavesNothing) {
    for (const std::string function :
         {"dvcpg_glib_new", "dvcpg_glib_register", "duskvale_lumacrates_new", "duskvale_dbus_new",
          "duskvale_dbus_register"}) {
        Cluster c(1);
        c[1].fails = function;
        EXPECT_EQ(c.start(1)[1].daemon, nullptr);
        EXPECT_EQ(c[1].log, "ERR(duskvale_corosync_new):Failed " + function + "()\n");
        EXPECT_TRUE(c[1].timers.empty());
        EXPECT_EQ(sim::live_objects, 0);
    }
}

TEST(Construction, GoesOnWithoutARunnerAndMakesOnlyOne) {
    Cluster c(1);
    c[1].fails = "duskvale_run_new";
    EXPECT_EQ(c.start(1).run(500).masters(), "1");
    EXPECT_THAT(c[1].take_signals(), Not(Contains("start")));
    c[1].log.clear();
    c[1].fails.clear();
    c.as(c[1], [daemon = c[1].daemon] {
        EXPECT_TRUE(duskvale_corosync_set_agents(daemon, nullptr)) << "makes none";
        EXPECT_TRUE(duskvale_corosync_set_agents(daemon, DUSKVALE_RUN_DIR));
        EXPECT_FALSE(duskvale_corosync_set_agents(daemon, DUSKVALE_RUN_DIR));
    });
    EXPECT_EQ(c[1].take_log(), "ERR(duskvale_corosync_set_agents):duskvale_corosync_set_agents: "
                               "cannot be run twice\n");
}

} // namespace
