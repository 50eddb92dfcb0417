/* Take-over, give-back, freeze, membership, the sync counter, and the construction. */
#include "script.h"

#include "base/paths.h"

namespace {

TEST(TakeOver, CountsWhenItIsDeliveredAndTheLastOneWins) {
    Booted c(3);
    EXPECT_EQ(c.hold(2).take_over(2).settle().masters(), "1 1 1");
    EXPECT_EQ(c.hold(2, false).settle().masters(), "2 2 2");
    const std::string record = "nodeid = 2 priority = 0 sync_counter = 7) -- local sync_counter = "
                               "7\nINFO: ---------- run steps done (0 errors)\n";
    EXPECT_EQ(c[1].take_log(), "INFO: SLAVE: (master " + record);
    EXPECT_EQ(c[2].take_log(), "INFO: MASTER: (" + record);
    EXPECT_EQ(c.take_over(1).take_over(3).settle().masters(), "3 3 3");
}

TEST(GiveBack, IsAnsweredByEverySlaveButTheSenderAndTheLastOneWins) {
    Booted c(3);
    const std::string said = "INFO: From 1: MASTER_GIVEBACK -- ";
    const auto by_slave = [](const std::string &id) {
        return HasSubstr("-- sending master take-over (local node " + id + " is slave)\n");
    };
    EXPECT_EQ(c.give_back(1).settle().masters(), "3 3 3");
    EXPECT_THAT(c[1].take_log(), HasSubstr(said + "ignoring my own message\n"));
    EXPECT_THAT(c[2].take_log(), by_slave("2"));
    EXPECT_EQ(c.give_back(1).settle().masters(), "2 2 2") << "also when a slave asks";
    EXPECT_THAT(c[3].take_log(),
                HasSubstr(said + "ignoring (local node 3 is already existing master)\n"));
    c[1].log.clear();
    c.inject(words('G', {1, 0, 0})).settle();
    EXPECT_THAT(c[1].log, by_slave("1")) << "what counts is the sender, not the node named";

    Cluster young(2);
    young.start(1).start(2).settle()[2].log.clear();
    EXPECT_EQ(young.give_back(1).settle()[2].log, said + "ignoring (no valid master)\n");
}

TEST(Freeze, IsKeptOnEveryNodeAndStopsElections) {
    Booted c(3);
    c.freeze(3, "disk swap").settle();
    EXPECT_EQ(c[1].take_log(), "INFO: From 3: FROZEN MASTER 1 (disk swap) -- already master\n");
    EXPECT_EQ(c[2].take_log(), "INFO: From 3: FROZEN MASTER 1 -- already slave\n");
    EXPECT_EQ(c.prefer(3, true).crash(1).settle()[2].take_log(),
              "INFO: From 1: LEFT -- no master election (FROZEN to 1)\n");
    EXPECT_EQ(c.sent, (std::map<char, size_t>{{'F', 1}}));
    EXPECT_EQ(c.start(1).settle().masters(), "1 1 1") << "it comes back as the master";
    EXPECT_EQ(c.sent['1'], 0U);
    EXPECT_EQ(c.sent['F'], 4U) << "each tells the one that joins";

    EXPECT_THAT(c.lift(2, "done").run(500)[3].take_signals(), Contains("FrozenMaster 0 'done'"));
    EXPECT_EQ(c.sent['1'], 3U) << "one from each node";
    EXPECT_EQ(c.masters(), "3 3 3") << "the preference counts now";
}

TEST(Freeze, ThatNamesAnotherThanTheMasterMovesNothing) {
    Booted c(2);
    EXPECT_EQ(c.inject(words('F', {2}) + "other" + '\0').settle().masters(), "1 1");
    EXPECT_EQ(c[1].take_log(), "INFO: From 9: FROZEN MASTER 2 -- already slave\n");
    EXPECT_EQ(c[2].take_log(), "INFO: From 9: FROZEN MASTER 2 (other) -- already master\n");
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
