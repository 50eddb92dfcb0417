/* The connection over libcpg, on a scripted library. */
#include "recorder.h"

#include <stdio_ext.h>

using testing::ElementsAre;
using testing::IsEmpty;

class Cpg : public CpgTest {
public:
    ~Cpg() override {
        lib.results.clear();
        if (cpg != nullptr) {
            duskvale_cpg_destroy(cpg);
        }
    }

    void open(const DuskvaleGCpgAgents *to) {
        ASSERT_EQ(duskvale_cpg_new(&cpg, "duskvale", to, static_cast<CpgTest *>(this)), CS_OK);
    }

    void dispatch(int times = 1) {
        for (int i = 0; i < times; i++) {
            EXPECT_EQ(duskvale_cpg_dispatch(cpg), CS_OK);
        }
    }

    duskvale_cpg *cpg = nullptr;
};

TEST_F(Cpg, ConnectsReadsTheNodeIdJoinsAndReadsTheDescriptor) {
    debug(7, 1 << 1);
    EXPECT_EQ(output([this] { open(&agents); }), "DBG(CPG): duskvale_cpg_new: Local node: 7\n"
                                                 "DBG(CPG): duskvale_cpg_new: Joined: Poll fd: " +
                                                     std::to_string(lib.fd) + "\n");
    EXPECT_THAT(lib.calls, ElementsAre("cpg_model_initialize flags=1", "cpg_local_get",
                                       "cpg_join duskvale", "cpg_fd_get"));
    lib.calls.clear();
    EXPECT_EQ(duskvale_cpg_local_nodeid(cpg), FakeLibcpg::NODEID);
    EXPECT_EQ(duskvale_cpg_fd(cpg), lib.fd);
    EXPECT_THAT(lib.calls, IsEmpty());
}

TEST_F(Cpg, AFailureOnTheWayUpIsLoggedAndLeavesNothingOpen) {
    const struct {
        const char *function;
        const char *line;
        size_t finalized;
    } steps[] = {
        {"cpg_model_initialize", "ERR(duskvale_cpg_new):Failed: cpg_initialize()\n", 0},
        {"cpg_local_get", "ERR(duskvale_cpg_new):Failed: cpg_local_get()\n", 1},
        {"cpg_join", "ERR(duskvale_cpg_new):Failed: cpg_join()\n", 1},
        {"cpg_fd_get", "ERR(duskvale_cpg_new):duskvale_cpg_new: failed getting file descriptor\n",
         1},
    };
    for (const auto &step : steps) {
        SCOPED_TRACE(step.function);
        lib.calls.clear();
        lib.results = {{step.function, CS_ERR_ACCESS}};
        cs_error_t result = CS_OK;
        EXPECT_EQ(output([&] { result = duskvale_cpg_new(&cpg, "duskvale", &agents, nullptr); }),
                  step.line);
        EXPECT_EQ(result, CS_ERR_ACCESS);
        EXPECT_EQ(cpg, nullptr);
        EXPECT_TRUE(lib.calls.at(lib.calls.size() - 1 - step.finalized).starts_with(step.function));
        EXPECT_EQ(lib.count("cpg_finalize"), step.finalized);
    }
}

TEST_F(Cpg, AGroupNameThatDoesNotFitIsRefusedBeforeAnythingIsOpened) {
    cs_error_t result = CS_OK;
    EXPECT_EQ(output([&] {
                  result = duskvale_cpg_new(&cpg, std::string(128, 'g').c_str(), &agents, nullptr);
              }),
              "ERR(duskvale_cpg_new):Group name of 128 bytes is too long, at most 127 are "
              "allowed\n");
    EXPECT_EQ(result, CS_ERR_NAME_TOO_LONG);
    EXPECT_EQ(cpg, nullptr);
    EXPECT_THAT(lib.calls, IsEmpty());

    const std::string longest(127, 'g');
    EXPECT_EQ(duskvale_cpg_new(&cpg, longest.c_str(), &agents, nullptr), CS_OK);
    EXPECT_THAT(lib.calls, testing::Contains("cpg_join " + longest));
}

TEST_F(Cpg, SendsAllBuffersAsOneMessageAndNeverTwice) {
    open(&agents);
    char head[] = "he", tail[] = "llo";
    const iovec iov[] = {{head, 2}, {tail, 3}};
    lib.calls.clear();
    EXPECT_EQ(duskvale_cpg_send(cpg, iov, 2), CS_OK);
    EXPECT_THAT(lib.calls, ElementsAre("cpg_mcast_joined 1:hello"));

    lib.results["cpg_mcast_joined"] = CS_ERR_TRY_AGAIN;
    EXPECT_EQ(output([&] { EXPECT_EQ(duskvale_cpg_send(cpg, iov, 1), CS_ERR_TRY_AGAIN); }),
              "ERR(duskvale_cpg_send):Failed: cpg_mcast_joined()\n");
    EXPECT_EQ(lib.count("cpg_mcast_joined"), 2u);
}

TEST_F(Cpg, AFailedDispatchIsReportedAndTheConnectionStays) {
    open(&agents);
    lib.queue_message(3, "later");
    lib.results["cpg_dispatch"] = CS_ERR_BUSY;
    EXPECT_EQ(output([&] { EXPECT_EQ(duskvale_cpg_dispatch(cpg), CS_ERR_BUSY); }),
              "ERR(duskvale_cpg_dispatch):Failed: cpg_dispatch()\n");
    lib.results.clear();
    dispatch();
    EXPECT_THAT(events, ElementsAre("got 3 later"));
    EXPECT_EQ(lib.count("cpg_finalize"), 0u);
}

TEST_F(Cpg, AFailedFinalizeKeepsTheRecord) {
    open(&agents);
    lib.results["cpg_finalize"] = CS_ERR_BUSY;
    EXPECT_EQ(output([&] { EXPECT_EQ(duskvale_cpg_destroy(cpg), CS_OK); }),
              "ERR(duskvale_cpg_destroy):Failed: cpg_finalize()\n");
    EXPECT_EQ(duskvale_cpg_local_nodeid(cpg), FakeLibcpg::NODEID);
}

TEST_F(Cpg, DeparturesComeBeforeArrivalsInListOrderWithOneMemberCount) {
    open(&agents);
    lib.queue_change(2, {{2, 0, 0}}, {{3, 0, 0}});
    lib.queue_change(6, {{9, 0, 0}, {4, 0, 0}}, {{8, 0, 0}, {5, 0, 0}});
    lib.queue_change(6, {}, {});
    dispatch(3);
    EXPECT_THAT(events, ElementsAre("left 2 2", "joined 3 2", "left 9 6", "left 4 6", "joined 8 6",
                                    "joined 5 6"));
}

TEST_F(Cpg, AMessageIsHandedOnAsTheLibraryGaveIt) {
    open(&agents);
    const std::string with_nul("a\0b", 3);
    lib.queue_message(FakeLibcpg::NODEID, with_nul);
    dispatch();
    EXPECT_THAT(events, ElementsAre("got 7 " + with_nul));
    EXPECT_NE(delivered, nullptr);
    EXPECT_EQ(delivered, lib.message);
}

TEST_F(Cpg, EventsWithoutASlotAreDroppedInSilence) {
    const struct {
        DuskvaleGCpgAgents table;
        std::vector<std::string> expected;
    } cases[] = {
        {{nullptr, left, got_message}, {"left 2 1", "got 3 m"}},
        {{joined, nullptr, got_message}, {"joined 3 1", "got 3 m"}},
        {{joined, left, nullptr}, {"left 2 1", "joined 3 1"}},
    };
    const auto run = [this](const DuskvaleGCpgAgents *table) {
        events.clear();
        open(table);
        lib.queue_change(1, {{2, 0, 0}}, {{3, 0, 0}});
        lib.queue_message(3, "m");
        EXPECT_EQ(output([this] { dispatch(2); }), "");
        duskvale_cpg_destroy(std::exchange(cpg, nullptr));
    };
    for (const auto &row : cases) {
        run(&row.table);
        EXPECT_EQ(events, row.expected);
    }
    run(nullptr);
    EXPECT_THAT(events, IsEmpty());
}

TEST_F(Cpg, AnEventWhoseRecordCannotBeFoundIsDroppedWithAnError) {
    open(&agents);
    lib.queue_change(1, {{2, 0, 0}}, {{3, 0, 0}});
    lib.queue_message(3, "m");
    lib.results["cpg_context_get"] = CS_ERR_BAD_HANDLE;
    EXPECT_EQ(output([this] { dispatch(2); }),
              "ERR(cpg_confchg_fn):cpg_confchg_fn: Failed: cpg_context_get()\n"
              "ERR(cpg_deliver_fn):cpg_deliver_fn: Failed: cpg_context_get()\n");
    EXPECT_THAT(events, IsEmpty());
}

TEST_F(Cpg, DebuggingShowsWhoLeftAndWhoJoined) {
    open(nullptr);
    const auto change = [this] {
        lib.queue_change(2, {{2, 200, CPG_REASON_NODEDOWN}},
                         {{3, 300, CPG_REASON_JOIN}, {4, 400, CPG_REASON_PROCDOWN}});
        dispatch();
        EXPECT_EQ(__fpending(stdout), 0U) << "shown only when the buffer is full";
    };
    std::string listed, logged;
    const auto run = [&] { listed = output([&] { logged = output(change); }, STDOUT_FILENO); };
    debug(7, 1 << 1);
    run();
    EXPECT_EQ(logged, "DBG(CPG): cpg_confchg_fn: group_name='duskvale'\n");
    EXPECT_EQ(listed, "\t[0] left: nodeid=2 pid=200 reason=3\n"
                      "\t[0] joined: nodeid=3 pid=300 reason=1\n"
                      "\t[1] joined: nodeid=4 pid=400 reason=5\n");
    debug(6, 1 << 1);
    run();
    EXPECT_EQ(logged + listed, "");
    debug(7, 1 << 2);
    run();
    EXPECT_EQ(logged + listed, "");
}
