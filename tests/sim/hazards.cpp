/* What the protocol carries and operators must know: each hazard of docs/protocol.md, shown. */
#include "script.h"

namespace {

TEST(Hazard, AnElectionStartBeforeTheWinnersTakeOverEndsTheNodesAndARestartHeals) {
    Booted c(3);
    c.restart_after = 100;
    c.crash(1).run(499).hold(2).run(1);
    EXPECT_EQ(c.masters(), "1 2") << "the winner names the master of before, the loser the winner";
    c.prefer(3, false).settle();
    EXPECT_EQ(c.aborts(), "0 1 1");
    EXPECT_EQ(c.run(1000).masters(), "2 2");
}

TEST(Hazard, ATakeOverThatCrossesAnElectionStartEndsEveryNodeAndARestartHeals) {
    Booted c(3);
    c.restart_after = 100;
    c.prefer(1, false).take_over(2).settle();
    EXPECT_EQ(c.aborts(), "1 1 1");
    EXPECT_THAT(c[3].log, HasSubstr("SPLIT BRAIN RECONNECTED (current 2, got 1)"));
    EXPECT_EQ(c.run(1000).masters(), "1 1 1");
}

TEST(Hazard, ANodePausedThroughAnElectionEndsItsPeersAndItselfAndARestartHeals) {
    Booted c(3);
    c.restart_after = 100;
    EXPECT_EQ(c.pause(3).crash(1).run(600).masters(), "2 1");
    c.pause(3, false).settle();
    EXPECT_EQ(c.aborts(), "0 1 1");
    EXPECT_EQ(c.run(1000).masters(), "2 2");
}

TEST(Hazard, ATakeOverBeforeTheEndOfASlowerNodesPeriodIsUndoneThere) {
    Booted c(4);
    c.pause(4).prefer(1, false).run(10).pause(4, false).run(495).take_over(3).run(60'000);
    EXPECT_EQ(c.masters(), "3 3 3 1") << "and nothing brings this to light";
    EXPECT_EQ(c.aborts(), "0 0 0 0");
    EXPECT_EQ(c.take_over(3).settle().masters(), "3 3 3 3");
}

TEST(Hazard, ARefusedTakeOverLeavesTheSlavesNamingAMasterThatIsNone) {
    for (const bool asked : {true, false}) {
        Booted c(3);
        c.restart_after = 100;
        EXPECT_EQ(c.refuse(2, 'M').crash(1).run(60'000).masters(), "1 2");
        EXPECT_THAT(c[2].log, AllOf(HasSubstr("that's me"), Not(HasSubstr("INFO: MASTER:"))));
        c.refuse(2, 0);
        if (asked) {
            EXPECT_EQ(c.take_over(2).settle().masters(), "2 2");
            EXPECT_EQ(c.aborts(), "0 0 0");
        } else {
            EXPECT_EQ(c.start(1).run(2000).masters(), "1 1 1");
            EXPECT_EQ(c.aborts(), "0 1 1") << "the next election ends those who disagree";
        }
    }
}

TEST(Hazard, ALoneNodeWhoseTakeOverWasRefusedNeedsAnElection) {
    Booted c(2);
    EXPECT_EQ(c.refuse(2, 'M').crash(1).run(60'000).masters(), "1") << "which has left";
    EXPECT_FALSE(c.refuse(2, 0).take_over(2).accepted);
    EXPECT_EQ(c.prefer(2, false).run(500).masters(), "2");
}

TEST(Hazard, AJoinCostsTheCubeOfTheNodesUnlessTheyAreFrozen) {
    for (const unsigned n : {3U, 4U, 5U, 8U, 16U, 32U, 64U}) {
        if (n > sim::largest) {
            break;
        }
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
            c[id].frozen = 1;
            c.start(id);
        }
        c[n].frozen = 1;
        const size_t frozen = count([&] { c.start(n); });
        c.stop(n).settle().lift(1);
        c[n].frozen = 0;
        const size_t join = count([&] { c.start(n); });
        const size_t leave = count([&] { c.stop(n); });
        EXPECT_EQ(join, n * n * n + 2 * n * n + 2 * n);
        EXPECT_EQ(frozen, n);
        EXPECT_EQ(leave, (n - 1) * n) << "an election start each and an answer each to each";
    }
}

TEST(Hazard, AJoinCanMoveMastershipUnlessTheMasterIsPreferredOrFrozen) {
    struct {
        bool preferred, frozen;
        const char *masters;
    } const cases[] = {
        {false, false, "1 1 1 1"}, {true, false, "3 3 3 3"}, {false, true, "3 3 3 -"}};
    for (const auto &[preferred, frozen, masters] : cases) {
        Cluster c(4);
        c[3].preferred = preferred;
        c.boot().crash(4).run(2000).take_over(3).run(5000);
        EXPECT_EQ(c.masters(), "3 3 3");
        if (frozen) {
            c.freeze(3).settle();
            c[4].frozen = 3;
        }
        EXPECT_EQ(c.start(4).run(1000).masters(), masters);
    }
}

TEST(Hazard, AFreezeIsLiftedByAJoinerWithoutOneWhoseStateIsDeliveredLast) {
    for (const uint32_t joiner : {1U, 3U}) { /* the order follows the node ids */
        for (const char *reason : {"", "a first line without a number"}) {
            Booted c(3);
            c.take_over(2).settle().freeze(2, "disk swap").run(1000).stop(joiner).settle();
            c[joiner].frozen = 0;
            c[joiner].reason = reason;
            c.start(joiner).run(1000);
            for (const auto &[key, node] : c.nodes) {
                EXPECT_EQ(node.frozen, joiner == 1 ? 2U : 0U);
                EXPECT_EQ(node.reason.value_or("no file"), joiner == 1 ? "disk swap" : "no file");
            }
        }
    }
}

TEST(Hazard, ASingleSurvivorStaysFrozenToAMasterThatHasLeft) {
    Booted c(2);
    EXPECT_EQ(c.freeze(1).settle().crash(1).run(60'000).masters(), "1");
    EXPECT_FALSE(c.lift(2).accepted);
    EXPECT_FALSE(c.take_over(2).accepted);
}

TEST(Hazard, ASlaveRestartedWhileFrozenKnowsNoMasterAndItsFreezeLifts) {
    Booted c(3);
    EXPECT_EQ(c.freeze(1).settle().crash(3).start(3).run(60'000).masters(), "1 1 -");
    EXPECT_THAT(c[3].signals, Not(Contains("stop"))) << "no steps have run";
    EXPECT_EQ(c.freeze(3).settle()[1].frozen, 0U) << "it can only name the master that it knows";
    EXPECT_EQ(c.run(1000).masters(), "1 1 1");
}

TEST(Hazard, PartitionsFrozenToTwoMastersKeepBothWhenTheyMeet) {
    Booted c(4);
    c.restart_after = 100;
    c.cut({{1, 2}, {3, 4}}).run(1000).freeze(1).freeze(3).settle().heal().run(60'000);
    EXPECT_EQ(c.masters(), "1 1 3 3");
    EXPECT_EQ(c.aborts(), "0 0 0 0");
    EXPECT_EQ(c.lift(2).run(2000).masters(), "1 1 1 1");
    EXPECT_EQ(c.aborts(), "1 1 1 1") << "lifting the freeze brings it to light";
}

TEST(Hazard, ANodeFrozenToItselfThatMissedTheLiftTakesOverAndEndsNodes) {
    Booted c(3);
    c.restart_after = 100;
    EXPECT_EQ(c.freeze(1).settle().crash(1).settle().lift(2).run(1000).masters(), "2 2");
    EXPECT_EQ(c.start(1).run(2000).masters(), "1 1 1");
    EXPECT_EQ(c.aborts(), "1 1 1");
}

TEST(Hazard, ASecondDaemonOnANodeIsSeenAsAJoinAndALeave) {
    Booted c(2);
    c.nodes[9].id = 2;
    c.nodes[9].cluster = &c;
    c.nodes[9].fails = "duskvale_dbus_register"; /* the bus name is taken */
    c.start(9).run(1000);
    EXPECT_EQ(c[9].daemon, nullptr);
    EXPECT_THAT(c[1].signals, AllOf(Contains("Joined 2, now 3"), Contains("Left 2, now 2")));
    EXPECT_EQ(c.sent['1'], 8U) << "the join: one each, and one each for each of two unfrozen "
                                  "states; the leave: one each";
    EXPECT_EQ(c.masters(), "2 2") << "the counters were equal";
}

} // namespace
