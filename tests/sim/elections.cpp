/* Elections and split brain, step by step. */
#include "script.h"

namespace {

/* A proposal as a peer sends it. */
std::string proposal(uint32_t nodeid, uint32_t counter, uint32_t current_master = 0) {
    return words('P', {nodeid, 0, counter, current_master});
}

/* The master that a lone node 1 names after an election start and these messages of peers. */
uint32_t elect(const std::vector<std::string> &messages) {
    Cluster c(1);
    c.start(1).settle().inject(words('1'));
    for (const std::string &message : messages) {
        c.inject(message);
    }
    return c.run(500)[1].master;
}

TEST(Election, OfALoneNodeIsLoggedToTheByte) {
    Cluster c(1);
    c.start(1).stop(1)[1].log.clear(); /* the making of the class, once in a process */
    expect_golden("lone-election.log", debug_log(c[1], [&c] { c.start(1).run(1000); }));
}

TEST(Election, IsWonByTheHighestCounterAndAmongEqualsByTheFirstDelivered) {
    EXPECT_EQ(elect({proposal(7, 7), proposal(8, 9), proposal(9, 9)}), 8U);
    EXPECT_EQ(elect({proposal(8, 4294967295), proposal(9, 0)}), 8U) << "counters are unsigned";
    EXPECT_EQ(elect({proposal(8, 0)}), 8U) << "the node's own proposal came second";
    EXPECT_EQ(elect({proposal(8, 9), words('1'), proposal(9, 5)}), 9U)
        << "an election start discards what was gathered";
    for (const uint32_t first : {1U, 2U}) {
        Cluster c(2);
        c.start(1).start(2).settle().inject(words('1'));
        c.hold(3 - first).settle().hold(3 - first, false).run(500);
        EXPECT_EQ(c.masters(), first == 1 ? "1 1" : "2 2");
    }
}

TEST(Election, EndsHalfASecondAfterTheLastStart) {
    Cluster c(1);
    EXPECT_EQ(c.start(1).run(499).inject(words('1')).run(499).masters(), "-");
    EXPECT_EQ(c.run(1).masters(), "1");
}

TEST(Election, IsRepeatedUntilAProposalArrives) {
    Cluster c(1);
    c.start(1).refuse(1, 'P').run(1400).refuse(1, 0);
    const std::string failed = "INFO: Failed to find a master -- restarting election...\n";
    EXPECT_EQ(c[1].take_log(),
              "INFO: From 1: UNFROZEN master -- start election\n" + failed + failed);
    EXPECT_EQ(c.run(600).masters(), "1");
}

TEST(Election, AppliesTheWinnerTwiceOnASlave) {
    Booted c(3);
    expect_golden("lost-master", outcome("the master is lost", c.crash(1).run(500)));
}

TEST(Election, KeepsTheMasterWhenAPeerRestarts) {
    Booted c(2);
    c.crash(2).run(800'000);
    outcome("the peer is lost", c);
    expect_golden("restarted-peer", outcome("it is back", c.start(2).run(500)));
}

TEST(SplitBrain, EndsANodeAtTheFirstProposalThatNamesAnotherMaster) {
    Booted c(1);
    c.inject(proposal(9, 0, 0)); /* names none: harmless */
    c.inject(proposal(9, 0, 4294967295)).inject(words('K')).settle();
    EXPECT_EQ(c[1].take_log(), "ERR(message_handler_master_propose):From 9: SPLIT BRAIN "
                               "RECONNECTED (current 1, got -1) -- Aborting\n");
    EXPECT_EQ(c.sent.size(), 0U);

    c.start(1).settle().inject(proposal(9, 0, 7)).run(500);
    EXPECT_EQ(c.aborts(), "1") << "this node knows no master that could differ";
}

TEST(SplitBrain, EndsBothSidesThatElectedAndARestartHeals) {
    Booted c(4);
    EXPECT_EQ(c.cut({{1, 2}, {3, 4}}).run(600).masters(), "1 1 3 3");
    c.restart_after = 100;
    EXPECT_EQ(c.heal().run(2000).masters(), "1 1 1 1");
    EXPECT_EQ(c.aborts(), "1 1 1 1");
}

} // namespace
