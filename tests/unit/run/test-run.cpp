/* Real steps in a directory of their own: what they are given, and what the owner hears. */
#include "run/duskvale-run.h"

#include "support/capture.h"
#include "support/loop.h"
#include "support/script.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>

namespace fs = std::filesystem;

namespace {

constexpr int inheritable = 99; /* a descriptor */

struct Session {
    Session() {
        char name[] = "/tmp/test-run-XXXXXX";
        dir = mkdtemp(name);
        fs::current_path("/");
        dup2(STDOUT_FILENO, inheritable);
        /* What a step inherits must not depend on who called the test. */
        for (int signo = 1; signo < 32; signo++) {
            signal(signo, SIG_DFL);
        }
        signal(SIGPIPE, SIG_IGN);
        create(&agents);
    }
    ~Session() {
        EXPECT_EQ(sources(), "") << "left behind";
        g_clear_object(&runner);
        fs::remove_all(dir);
    }

    /* What was logged, what the owner has heard, and what the steps have written. */
    std::string outcome() {
        std::string text = log.take() + std::exchange(heard, {}) + trace();
        fs::remove(dir / "trace");
        for (size_t at; (at = text.find(dir.string())) != std::string::npos;) {
            text.replace(at, dir.string().size(), "DIR");
        }
        const std::string process = std::to_string(pid);
        for (size_t at; pid != 0 && (at = text.find(process)) != std::string::npos;) {
            text.replace(at, process.size(), "PID");
        }
        return text;
    }

    void create(const DuskvaleRunAgents *table) {
        g_clear_object(&runner);
        address = runner = duskvale_run_new(dir.c_str(), table, this);
    }
    void add(const std::string &name, const std::string &body, bool executable) const {
        std::ofstream(dir / name) << "#!/bin/sh\nt=${0%/*}/trace\necho \"  ${0##*/} $*\" >>$t\n"
                                  << body << "\n";
        fs::permissions(dir / name, static_cast<fs::perms>(executable ? 0755 : 0644));
    }
    std::string trace() const { return fs::exists(dir / "trace") ? file_text(dir / "trace") : ""; }
    GSource *source(GSourceFuncs &funcs) const {
        return g_main_context_find_source_by_funcs_user_data(nullptr, &funcs, address);
    }
    std::string sources() const {
        return std::string(source(g_child_watch_funcs) != nullptr ? "watches\n" : "") +
               (source(g_timeout_funcs) != nullptr ? "waits for at most four minutes\n" : "");
    }
    /* Four minutes pass. */
    void pass() {
        constexpr gint64 four_minutes = gint64{240} * G_USEC_PER_SEC;
        GSource *timer = source(g_timeout_funcs);
        ASSERT_NE(timer, nullptr);
        EXPECT_GE(g_source_get_ready_time(timer), started + four_minutes);
        EXPECT_LE(g_source_get_ready_time(timer), g_get_monotonic_time() + four_minutes);
        g_source_set_ready_time(timer, 0);
        EXPECT_TRUE(loop_until([&] { return !log.text().empty(); }));
    }

    static Session *self(gpointer session) { return static_cast<Session *>(session); }
    static int step_start(gpointer session, const char *step, gboolean is_master, GPid child) {
        self(session)->pid = child;
        self(session)->started = g_get_monotonic_time();
        self(session)->heard += "begins: " + fs::path(step).filename().string() +
                                (is_master != FALSE ? " as master\n" : " as slave\n");
        return 0;
    }
    static void step_end(gpointer session, const char *step, gboolean is_master, GPid child,
                         int status) {
        EXPECT_EQ(child, self(session)->pid);
        self(session)->heard += "ends: " + fs::path(step).filename().string() +
                                (is_master != FALSE ? " as master, " : " as slave, ") +
                                std::to_string(status) + "\n";
    }
    static int steps_done(gpointer session, int errors) {
        self(session)->done++;
        self(session)->heard += "done: " + std::to_string(errors) + " errors\n";
        return 0;
    }
    static constexpr DuskvaleRunAgents agents = {step_start, step_end, steps_done, nullptr};
    static constexpr DuskvaleRunAgents empty = {};

    fs::path dir;
    DuskvaleRun *runner = nullptr;
    gpointer address = nullptr; /* of the runner, known also after its release */
    GPid pid = 0;
    gint64 started = 0;
    unsigned done = 0;
    std::string heard;
    Capture log;
    Words w;

    const Commands commands = {
        {"step", [this] { add(w[1], rest(w, 2), true); }},
        {"dud", [this] { add(w[1], "", false); }},
        {"clear",
         [this] {
             fs::remove_all(dir);
             fs::create_directory(dir);
         }},
        {"rmdir", [this] { fs::remove_all(dir); }},
        {"start", [this] { EXPECT_TRUE(duskvale_run_start(runner, w[1] == "master")); }},
        /* Until so many sequences have ended. */
        {"wait",
         [this] {
             EXPECT_TRUE(loop_until([&] { return done >= number(w[1]); })) << heard;
             done = 0;
         }},
        {"until-ready",
         [this] { EXPECT_TRUE(loop_until([&] { return trace().ends_with("ready\n"); })); }},
        {"pass", [this] { pass(); }},
        {"kill", [this] { kill(pid, SIGKILL); }},
        {"reap", [this] { EXPECT_EQ(waitpid(pid, nullptr, 0), pid); }},
        {"release", [this] { g_clear_object(&runner); }},
        {"sources", [this] { heard += sources().empty() ? "nothing left\n" : sources(); }},
        {"agents", [this] { create(w[1] == "none" ? &empty : nullptr); }},
        {"idle",
         [this] {
             EXPECT_TRUE(loop_until([&] { return source(g_child_watch_funcs) == nullptr; }));
         }},
    };
};

TEST(Run, DoesAsItDid) {
    expect_script<Session>("steps");
}

/* Each skipped file would cost a recursion its frames: a thousand of them, on a small stack. */
TEST(Run, ThousandFilesThatCannotBeRunNeedNoStack) {
    Session session;
    for (int i = 0; i < 1000; i++) {
        session.add(std::to_string(i) + ".run", "", false);
    }
    pthread_attr_t small;
    pthread_attr_init(&small);
    pthread_attr_setstacksize(&small, 131072);
    pthread_t thread;
    const auto start = [](void *runner) -> void * {
        return GINT_TO_POINTER(duskvale_run_start(static_cast<DuskvaleRun *>(runner), FALSE));
    };
    ASSERT_EQ(pthread_create(&thread, &small, start, session.runner), 0);
    pthread_join(thread, nullptr);
    EXPECT_EQ(std::ranges::count(session.outcome(), '\n'), 1001);
}

} // namespace
