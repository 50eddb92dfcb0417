/* The connection on a main loop, on a scripted library with a descriptor of the kernel's. */
#include "recorder.h"

#include "cpg/duskvale-gcpg.h"

#include <unistd.h>

#include <cstdlib>

using testing::ElementsAre;
using testing::IsEmpty;

class GCpg : public CpgTest {
public:
    GCpg() { use(&agents); }
    ~GCpg() override {
        debug(0, 0);
        g_clear_object(&object);
        /* The object leaves its connection open, and so the record that lib knows. */
        lib.results.clear();
        if (registered) {
            duskvale_cpg_destroy(static_cast<duskvale_cpg *>(lib.context));
        }
        g_main_context_unref(context);
    }

    void use(const DuskvaleGCpgAgents *table) {
        g_clear_object(&object);
        object = dvcpg_glib_new("duskvale", table, static_cast<CpgTest *>(this));
    }

    void join() {
        registered = dvcpg_glib_register(object, context);
        ASSERT_TRUE(registered);
        source = g_main_context_find_source_by_user_data(context, object);
        ASSERT_NE(source, nullptr);
    }

    bool turn() { return g_main_context_iteration(context, FALSE); }

    GMainContext *context = g_main_context_new();
    DuskvaleGCpg *object = nullptr;
    GSource *source = nullptr;
    bool registered = false;
    cs_error_t sent = CS_OK;
};

TEST_F(GCpg, NothingIsConnectedUntilItIsRegistered) {
    EXPECT_THAT(lib.calls, IsEmpty());
    EXPECT_EQ(G_OBJECT(object)->ref_count, 1u);
    EXPECT_EQ(output([this] { g_clear_object(&object); }), "");
    EXPECT_THAT(lib.calls, IsEmpty());
}

TEST_F(GCpg, RegisteringReportsWhatFailed) {
    lib.results["cpg_join"] = CS_ERR_ACCESS;
    EXPECT_EQ(output([this] { EXPECT_FALSE(dvcpg_glib_register(object, context)); }),
              "ERR(duskvale_cpg_new):Failed: cpg_join()\n"
              "ERR(dvcpg_glib_register):Failed instanciating cpg\n");
    lib.results.clear();
    lib.fd = -1;
    EXPECT_EQ(output([this] { EXPECT_FALSE(dvcpg_glib_register(object, context)); }),
              "ERR(dvcpg_glib_register):Failed getting cpg file-descriptor\n");
    registered = true;
    EXPECT_EQ(g_main_context_find_source_by_user_data(context, object), nullptr);
}

TEST_F(GCpg, EachReadinessHandlesOneEventInOrder) {
    join();
    EXPECT_EQ(duskvale_glib_local_nodeid(object), FakeLibcpg::NODEID);
    EXPECT_FALSE(turn());
    EXPECT_EQ(lib.count("cpg_dispatch"), 0u);
    lib.queue_change(2, {}, {{3, 0, 0}});
    lib.queue_message(3, "one");
    lib.queue_message(4, "two");
    for (size_t handled = 1; handled <= 3; handled++) {
        EXPECT_TRUE(turn());
        EXPECT_EQ(events.size(), handled);
    }
    EXPECT_THAT(events, ElementsAre("joined 3 2", "got 3 one", "got 4 two"));
    EXPECT_FALSE(turn());
    EXPECT_EQ(lib.count("cpg_dispatch"), 3u);
}

TEST_F(GCpg, AnIdleLoopSleepsUntilSomethingComes) {
    join();
    gint priority = 0, timeout = 0;
    ASSERT_TRUE(g_main_context_acquire(context));
    EXPECT_FALSE(g_main_context_prepare(context, &priority));
    g_main_context_query(context, priority, &timeout, nullptr, 0);
    EXPECT_EQ(timeout, -1);
    g_main_context_release(context);
}

TEST_F(GCpg, AnAgentMaySendWhileItIsCalled) {
    DuskvaleGCpgAgents answering = agents;
    answering.got_message = [](void *user_data, uint32_t, const void *message, size_t length) {
        auto *test = static_cast<GCpg *>(static_cast<CpgTest *>(user_data));
        test->sent = dvcpg_glib_send_message(test->object, message, length);
        return 0;
    };
    use(&answering);
    join();
    lib.queue_message(3, std::string("p\0ng", 4));
    lib.queue_message(3, "again");
    turn();
    lib.results["cpg_mcast_joined"] = CS_ERR_TRY_AGAIN;
    EXPECT_EQ(output([this] { turn(); }), "ERR(duskvale_cpg_send):Failed: cpg_mcast_joined()\n");
    lib.calls.erase(lib.calls.begin(), lib.calls.begin() + 4);
    EXPECT_THAT(lib.calls, ElementsAre("cpg_dispatch", std::string("cpg_mcast_joined 1:p\0ng", 23),
                                       "cpg_dispatch", "cpg_mcast_joined 1:again"));
    EXPECT_EQ(sent, CS_ERR_TRY_AGAIN);
}

TEST_F(GCpg, DebuggingTracesEveryTurn) {
    debug(7, 1 << 2);
    EXPECT_EQ(output([this] { join(); }), "DBG(CPG_GLIB): dvcpg_glib_register: \n"
                                          "DBG(CPG_GLIB): dvcpg_glib_register: fd=" +
                                              std::to_string(lib.fd) + " events=0x19\n");
    lib.queue_message(3, "m");
    EXPECT_EQ(output([this] { turn(); }), "DBG(CPG_GLIB): dvcpg_prepare: \n"
                                          "DBG(CPG_GLIB): dvcpg_check: events=0x1\n"
                                          "DBG(CPG_GLIB): dvcpg_dispatch: \n"
                                          "DBG(CPG_GLIB): dvcpg_callback: \n");
    EXPECT_EQ(output([this] { turn(); }), "DBG(CPG_GLIB): dvcpg_prepare: \n"
                                          "DBG(CPG_GLIB): dvcpg_check: events=0x0\n");
    EXPECT_EQ(output([this] { duskvale_glib_local_nodeid(object); }),
              "DBG(CPG_GLIB): duskvale_glib_local_nodeid: \n");
    EXPECT_EQ(output([this] { use(nullptr); }), "DBG(CPG_GLIB): dvcpg_glib_finalize: \n"
                                                "DBG(CPG_GLIB): dvcpg_glib_new: \n"
                                                "DBG(CPG_GLIB): dvcpg_glib_init: \n");
}

TEST_F(GCpg, ASourceWithoutACallbackGoesAtTheNextReadiness) {
    join();
    g_source_set_callback(source, nullptr, nullptr, nullptr);
    turn();
    EXPECT_FALSE(g_source_is_destroyed(source));
    lib.queue_message(3, "unheard");
    turn();
    EXPECT_TRUE(g_source_is_destroyed(source));
    EXPECT_EQ(lib.count("cpg_dispatch"), 0u);
}

TEST_F(GCpg, FinalizingReleasesTheSourceAndLeavesTheConnection) {
    static bool released;
    released = false;
    join();
    lib.queue_message(3, "unheard");
    g_source_set_dispose_function(source, [](GSource *) { released = true; });
    g_clear_object(&object);
    EXPECT_TRUE(released);
    EXPECT_FALSE(turn());
    EXPECT_EQ(lib.count("cpg_dispatch") + lib.count("cpg_finalize"), 0u);
}

TEST_F(GCpg, AFailedDispatchWithoutAHangUpIsSurvived) {
    join();
    lib.queue_message(3, "later");
    lib.results["cpg_dispatch"] = CS_ERR_LIBRARY;
    EXPECT_EQ(output([this] { turn(); }), "ERR(duskvale_cpg_dispatch):Failed: cpg_dispatch()\n");
    lib.results.clear();
    turn();
    EXPECT_THAT(events, ElementsAre("got 3 later"));
}

/* Events queued before the end are handled; then the process ends at the first failure, with one
   line to find. An exit handler says what was done, since the parent cannot look. */
TEST_F(GCpg, EndsTheProcessOnceCorosyncIsGone) {
    static GCpg *dying;
    join();
    EXPECT_EXIT(
        {
            dying = this;
            atexit([] {
                fprintf(stderr, "%zu events, %zu dispatches, source %s\n", dying->events.size(),
                        dying->lib.count("cpg_dispatch"),
                        g_source_is_destroyed(dying->source) ? "gone" : "attached");
            });
            lib.queue_message(3, "one");
            lib.queue_message(3, "two");
            lib.hang_up();
            for (int i = 0; i < 100; i++) {
                turn();
            }
        },
        testing::ExitedWithCode(EXIT_FAILURE),
        testing::StrEq("ERR(duskvale_cpg_dispatch):Failed: cpg_dispatch()\n"
                       "ERR(dvcpg_callback):corosync is gone (cpg_dispatch: 2) -- ending\n"
                       "2 events, 3 dispatches, source gone\n"));
}
