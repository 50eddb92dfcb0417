/* The connection on a main loop, on a scripted library with a descriptor of the kernel's. */
#include "base/log.h"
#include "cpg/duskvale-gcpg.h"
#include "fake-libcpg.h"
#include "support/capture.h"

#include <gmock/gmock.h>
#include <stdio_ext.h>

#include <cstdlib>
#include <string>
#include <vector>

using testing::ElementsAre;
using testing::IsEmpty;

class Cpg : public testing::Test {
public:
    ~Cpg() override {
        g_clear_object(&object);
        /* The object leaves its connection open, and so the record that lib knows. */
        lib.results.clear();
        if (lib.context != nullptr) {
            duskvale_cpg_destroy(record());
        }
        g_main_context_unref(context);
    }

    void join() {
        ASSERT_TRUE(dvcpg_glib_register(object, context));
        source = g_main_context_find_source_by_user_data(context, object);
        ASSERT_NE(source, nullptr);
    }
    duskvale_cpg *record() const { return static_cast<duskvale_cpg *>(lib.context); }
    bool turn() const { return g_main_context_iteration(context, FALSE); }

    /* A change and a message arrive; what is logged and printed. */
    std::string arrivals() {
        lib.queue_change(5, {{9, 200, CPG_REASON_NODEDOWN}, {2, 201, CPG_REASON_LEAVE}},
                         {{8, 300, CPG_REASON_JOIN}, {3, 301, CPG_REASON_PROCDOWN}});
        lib.queue_message(3, std::string("a\0b", 3));
        Capture log, list(STDOUT_FILENO);
        EXPECT_EQ(duskvale_cpg_dispatch(record()), CS_OK);
        EXPECT_EQ(duskvale_cpg_dispatch(record()), CS_OK);
        EXPECT_EQ(__fpending(stdout), 0U) << "a list that waits for a full buffer";
        return log.text() + list.text();
    }

    /* They answer -1, since the results of agents must not matter. */
    template <char sign>
    static int changed(void *test, uint32_t nodeid, size_t members) {
        static_cast<Cpg *>(test)->events.push_back(sign + std::to_string(nodeid) + " " +
                                                   std::to_string(members));
        return -1;
    }
    static int got(void *test, uint32_t nodeid, const void *message, size_t length) {
        static_cast<Cpg *>(test)->events.push_back(
            std::to_string(nodeid) + " " + std::string(static_cast<const char *>(message), length));
        return -1;
    }
    DuskvaleGCpgAgents agents = {.joined = changed<'+'>, .left = changed<'-'>, .got_message = got};

    FakeLibcpg lib;
    std::vector<std::string> events;
    GMainContext *context = g_main_context_new();
    DuskvaleGCpg *object = dvcpg_glib_new("duskvale", &agents, this);
    GSource *source = nullptr;
    cs_error_t sent = CS_OK;
};

TEST_F(Cpg, RegisteringComesUpInFourStepsAndAFailureLeavesNothingOpen) {
    const struct {
        const char *function;
        const char *arguments;
        const char *failure;
    } steps[] = {
        {"cpg_model_initialize", " 1", "Failed: cpg_initialize()\n"},
        {"cpg_local_get", "", "Failed: cpg_local_get()\n"},
        {"cpg_join", " duskvale", "Failed: cpg_join()\n"},
        {"cpg_fd_get", "", "duskvale_cpg_new: failed getting file descriptor\n"},
    };
    EXPECT_THAT(lib.calls, IsEmpty());
    std::vector<std::string> all;
    for (const auto &[function, arguments, failure] : steps) {
        Capture log;
        lib.results = {{function, CS_ERR_ACCESS}};
        EXPECT_FALSE(dvcpg_glib_register(object, context));
        EXPECT_EQ(log.text(), std::string("ERR(duskvale_cpg_new):") + failure +
                                  "ERR(dvcpg_glib_register):Failed instanciating cpg\n");
        EXPECT_EQ(lib.context, nullptr) << function;
        all.push_back(std::string(function) + arguments);
    }
    lib.results.clear();
    lib.calls.clear();
    join();
    EXPECT_EQ(lib.calls, all);
    EXPECT_EQ(duskvale_glib_local_nodeid(object), FakeLibcpg::local_node);

    duskvale_cpg_destroy(record());
    lib.fd = -1;
    Capture log;
    EXPECT_FALSE(dvcpg_glib_register(object, context));
    EXPECT_EQ(log.text(), "ERR(dvcpg_glib_register):Failed getting cpg file-descriptor\n");
}

TEST_F(Cpg, AGroupNameThatDoesNotFitIsRefusedBeforeAnythingIsOpened) {
    const std::string longest(127, 'g');
    duskvale_cpg *cpg = nullptr;
    Capture log;
    EXPECT_EQ(duskvale_cpg_new(&cpg, (longest + "g").c_str(), nullptr, nullptr),
              CS_ERR_NAME_TOO_LONG);
    EXPECT_EQ(log.text(), "ERR(duskvale_cpg_new):Group name of 128 bytes is too long, at most 127 "
                          "are allowed\n");
    EXPECT_THAT(lib.calls, IsEmpty());
    EXPECT_EQ(duskvale_cpg_new(&cpg, longest.c_str(), nullptr, nullptr), CS_OK);
    EXPECT_THAT(lib.calls, testing::Contains("cpg_join " + longest));
}

TEST_F(Cpg, DeparturesComeBeforeArrivalsAndEventsWithoutASlotAreDropped) {
    const std::string message("3 a\0b", 5);
    join();
    EXPECT_EQ(arrivals(), "");
    EXPECT_THAT(std::exchange(events, {}), ElementsAre("-9 5", "-2 5", "+8 5", "+3 5", message));
    const DuskvaleGCpgAgents all = agents;
    agents.joined = nullptr;
    EXPECT_EQ(arrivals(), "");
    EXPECT_THAT(std::exchange(events, {}), ElementsAre("-9 5", "-2 5", message));
    agents = {.joined = all.joined, .left = nullptr, .got_message = nullptr};
    EXPECT_EQ(arrivals(), "");
    EXPECT_THAT(events, ElementsAre("+8 5", "+3 5"));

    duskvale_cpg_destroy(record());
    duskvale_cpg *without_table = nullptr;
    ASSERT_EQ(duskvale_cpg_new(&without_table, "duskvale", nullptr, nullptr), CS_OK);
    EXPECT_EQ(arrivals(), "");
}

TEST_F(Cpg, AnEventWhoseRecordCannotBeFoundIsDroppedWithAnError) {
    join();
    lib.results["cpg_context_get"] = CS_ERR_BAD_HANDLE;
    EXPECT_EQ(arrivals(), "ERR(cpg_confchg_fn):cpg_confchg_fn: Failed: cpg_context_get()\n"
                          "ERR(cpg_deliver_fn):cpg_deliver_fn: Failed: cpg_context_get()\n");
    EXPECT_THAT(events, IsEmpty());
}

TEST_F(Cpg, DebuggingListsWhoLeftAndWhoJoined) {
    join();
    duskvale_debug_set_categories(1 << static_cast<int>(LogCategory::cpg));
    duskvale_debug_set_level(LOG_DEBUG);
    const std::string shown = arrivals();
    duskvale_debug_set_level(0);
    EXPECT_EQ(shown, "DBG(CPG): cpg_confchg_fn: group_name='duskvale'\n"
                     "\t[0] left: nodeid=9 pid=200 reason=3\n"
                     "\t[1] left: nodeid=2 pid=201 reason=2\n"
                     "\t[0] joined: nodeid=8 pid=300 reason=1\n"
                     "\t[1] joined: nodeid=3 pid=301 reason=5\n");
}

TEST_F(Cpg, EachReadinessHandlesOneEvent) {
    join();
    EXPECT_FALSE(turn());
    lib.queue_change(2, {}, {{3, 0, 0}});
    lib.queue_message(3, "one");
    lib.queue_message(4, "two");
    for (size_t handled = 1; handled <= 3; handled++) {
        EXPECT_TRUE(turn());
        EXPECT_EQ(events.size(), handled);
    }
    EXPECT_THAT(events, ElementsAre("+3 2", "3 one", "4 two"));
    EXPECT_FALSE(turn());
}

TEST_F(Cpg, AnAgentMaySendAndWhatIsRefusedIsNotSentAgain) {
    agents.got_message = [](void *test, uint32_t, const void *message, size_t length) {
        auto *self = static_cast<Cpg *>(test);
        self->sent = dvcpg_glib_send_message(self->object, message, length);
        return 0;
    };
    join();
    for (const cs_error_t result : {CS_OK, CS_ERR_TRY_AGAIN}) {
        lib.calls.clear();
        lib.results = {{"cpg_mcast_joined", result}};
        EXPECT_EQ(arrivals(),
                  result == CS_OK ? "" : "ERR(duskvale_cpg_send):Failed: cpg_mcast_joined()\n");
        EXPECT_THAT(lib.calls, ElementsAre("cpg_dispatch", "cpg_dispatch",
                                           std::string("cpg_mcast_joined 1:a\0b", 22)));
        EXPECT_EQ(sent, result);
    }
}

TEST_F(Cpg, FinalizingReleasesTheSourceAndLeavesTheConnection) {
    static bool released;
    released = false;
    join();
    lib.queue_message(3, "unheard");
    g_source_set_dispose_function(source, [](GSource *) { released = true; });
    g_clear_object(&object);
    EXPECT_TRUE(released);
    EXPECT_FALSE(turn());
    EXPECT_NE(lib.context, nullptr);
}

TEST_F(Cpg, AFailedDispatchOrFinalizeKeepsTheConnection) {
    join();
    lib.queue_message(3, "later");
    lib.results = {{"cpg_dispatch", CS_ERR_LIBRARY}, {"cpg_finalize", CS_ERR_BUSY}};
    Capture log;
    turn();
    EXPECT_EQ(duskvale_cpg_destroy(record()), CS_OK);
    EXPECT_EQ(log.text(), "ERR(duskvale_cpg_dispatch):Failed: cpg_dispatch()\n"
                          "ERR(duskvale_cpg_destroy):Failed: cpg_finalize()\n");
    lib.results.clear();
    turn();
    EXPECT_THAT(events, ElementsAre("3 later"));
}

TEST_F(Cpg, TheProcessEndsOnceCorosyncIsGoneAndWhatItHadQueuedIsHandled) {
    agents.got_message = [](void *, uint32_t, const void *message, size_t) {
        return fprintf(stderr, "%s\n", static_cast<const char *>(message));
    };
    join();
    EXPECT_EXIT(
        {
            lib.queue_message(3, "one");
            lib.queue_message(3, "two");
            lib.hang_up();
            for (int i = 0; i < 100; i++) {
                turn();
            }
        },
        testing::ExitedWithCode(EXIT_FAILURE),
        testing::StrEq("one\ntwo\nERR(duskvale_cpg_dispatch):Failed: cpg_dispatch()\n"
                       "ERR(dvcpg_callback):corosync is gone (cpg_dispatch: 2) -- ending\n"));
}
