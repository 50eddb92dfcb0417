#include "run/duskvale-run.h"

#include "base/log.h"
#include "support/capture.h"
#include "support/file.h"
#include "support/loop.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <utility>
#include <vector>

namespace fs = std::filesystem;

namespace {

/* Writes down that the step ran, and with what. */
const std::string trace = R"(echo "${0##*/} $*" >>"${0%/*}/trace")";

struct Step {
    std::string name;
    std::string body = trace;
    int mode = 0755;
};

class Run : public testing::Test {
protected:
    void SetUp() override {
        char name[] = "/tmp/test-run-XXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        dir = name;
        create(&agents);
    }
    void TearDown() override {
        EXPECT_EQ(watch(), nullptr) << "a child watch was left behind";
        EXPECT_EQ(timer(), nullptr) << "a time-out was left behind";
        g_clear_object(&runner);
        fs::remove_all(dir);
    }

    void create(const DuskvaleRunAgents *table) {
        g_clear_object(&runner);
        address = runner = duskvale_run_new(dir.c_str(), table, this);
    }
    void add(const Step &step) const {
        std::ofstream(dir / step.name) << "#!/bin/sh\n" << step.body << "\n";
        fs::permissions(dir / step.name, static_cast<fs::perms>(step.mode));
    }
    /* Runs until `times` sequences have ended; what was told of them. */
    std::string told_after(int times = 1) {
        EXPECT_TRUE(loop_until([&] { return done >= times; })) << told;
        done = 0;
        return std::exchange(told, "");
    }
    std::string written() const { return file_text(dir / "trace"); }
    GSource *source(GSourceFuncs &funcs) const {
        return g_main_context_find_source_by_funcs_user_data(nullptr, &funcs, address);
    }
    GSource *watch() const { return source(g_child_watch_funcs); }
    GSource *timer() const { return source(g_timeout_funcs); }

    fs::path dir;
    DuskvaleRun *runner = nullptr;
    gpointer address = nullptr; /* of the runner, known also after its release */
    std::pair<std::string, gboolean> started;
    GPid pid = 0;
    std::string told; /* each step's own trace and wait status, and each end of a sequence */
    int done = 0;

    static int step_start(gpointer test, const char *step, gboolean is_master, GPid child) {
        static_cast<Run *>(test)->started = {step, is_master};
        static_cast<Run *>(test)->pid = child;
        return 0;
    }
    static void step_end(gpointer test, const char *step, gboolean is_master, GPid child,
                         int status) {
        auto *self = static_cast<Run *>(test);
        EXPECT_EQ(self->started, std::pair(std::string(step), is_master));
        EXPECT_EQ(self->pid, child);
        const std::string line = self->written();
        EXPECT_EQ(line, fs::path(step).filename().string() + (is_master ? " start\n" : " stop\n"));
        fs::remove(self->dir / "trace");
        self->told += line.substr(0, line.find('\n')) + " " + std::to_string(status) + ", ";
    }
    static int steps_done(gpointer test, int errors) {
        static_cast<Run *>(test)->done++;
        static_cast<Run *>(test)->told += "errors " + std::to_string(errors) + ". ";
        return 0;
    }
    static constexpr DuskvaleRunAgents agents = {step_start, step_end, steps_done, nullptr};
};

TEST_F(Run, StepsRunInTheOrderOfTheRoleAndNoFailureStopsThem) {
    const auto expect = [this](gboolean is_master, const std::vector<Step> &steps,
                               const char *expected, std::vector<const char *> not_spawned = {}) {
        fs::remove_all(dir);
        fs::create_directory(dir);
        std::ranges::for_each(steps, [this](const Step &step) { add(step); });
        std::string errors;
        for (const char *name : not_spawned) {
            errors += "ERR(run_next):Failed to execute child process “" + (dir / name).string() +
                      "” (Permission denied)\n";
        }
        Capture log;
        EXPECT_TRUE(duskvale_run_start(runner, is_master));
        EXPECT_EQ(told_after(), expected);
        EXPECT_EQ(log.text(), errors) << expected;
    };
    expect(TRUE, {}, "errors 0. ");
    expect(TRUE, {{"a.run"}, {"9.run"}, {"B.run"}, {"10.run"}},
           "10.run start 0, 9.run start 0, B.run start 0, a.run start 0, errors 0. ");
    expect(FALSE, {{"b.run"}, {"c.run"}, {"a.run"}},
           "c.run stop 0, b.run stop 0, a.run stop 0, errors 0. ");
    expect(TRUE, {{".x.run"}, {"x.run.bak"}, {"x.Run"}, {"xrun"}, {"x y.run"}},
           "x y.run start 0, errors 0. ");
    expect(TRUE, {{"a.run", trace + "; exit 3"}, {"b.run", trace + "; kill -9 $$"}, {"c.run"}},
           "a.run start 768, b.run start 9, c.run start 0, errors 2. ");
    const std::vector<Step> duds{
        {"a.run", "", 0644}, {"b.run", "", 0644}, {"c.run"}, {"d.run", "", 0644}};
    expect(TRUE, duds, "c.run start 0, errors 0. ", {"a.run", "b.run", "d.run"});
    expect(FALSE, duds, "c.run stop 0, errors 0. ", {"d.run", "b.run", "a.run"});
}

TEST_F(Run, MissingDirectoryEndsAtOnceAndIsNotRemembered) {
    fs::remove(dir);
    Capture log;
    EXPECT_TRUE(duskvale_run_start(runner, FALSE));
    EXPECT_EQ(std::exchange(told, ""), "errors 0. ") << "before the return";
    EXPECT_EQ(log.take(), "ERR(duskvale_run_start):Failed glob(" + dir.string() + "/*.run): 2\n");
    fs::create_directory(dir);
    add({"a.run"});
    duskvale_run_start(runner, TRUE);
    EXPECT_EQ(told_after(2), "a.run start 0, errors 0. ");
    EXPECT_EQ(log.text(), "");
}

TEST_F(Run, LastRoleAskedForMeanwhileRunsAfterwards) {
    add({"a.run", trace + "; exit 1"});
    Capture log;
    duskvale_run_start(runner, TRUE);
    EXPECT_TRUE(duskvale_run_start(runner, TRUE));
    EXPECT_TRUE(duskvale_run_start(runner, FALSE));
    EXPECT_EQ(told_after(2), "a.run start 256, errors 1. a.run stop 256, errors 1. ");
    EXPECT_EQ(log.text(), "INFO: Already running -- remember pending transition (is_master=1)\n"
                          "INFO: Already running -- remember pending transition (is_master=0)\n"
                          "INFO: Run pending transition (is_master=0)\n");
    duskvale_run_start(runner, TRUE);
    EXPECT_EQ(told_after(), "a.run start 256, errors 1. ") << "the pending role was used up";
}

TEST_F(Run, StepGetsACleanProcess) {
    /* What a step could wrongly inherit: an open descriptor, an ignored signal (up to 31: glibc's
       posix_spawn, which ninja uses, leaves signal 32 ignored, and nobody can use that one). */
    const int fd = open("/dev/null", O_RDONLY);
    const auto old_pipe = signal(SIGPIPE, SIG_IGN);
    add({"a.run", trace + R"(
for set in SigBlk SigIgn; do
    mask=$(sed -n "s/^$set:\t//p" /proc/self/status)
    echo "$set" $((0x$mask & 0x7fffffff))
done >"${0%/*}/process"
readlink /proc/$$/cwd >>"${0%/*}/process"
[ ! -e /proc/$$/fd/)" +
                      std::to_string(fd) + " ]"});
    duskvale_run_start(runner, TRUE);
    EXPECT_EQ(told_after(), "a.run start 0, errors 0. ");
    EXPECT_EQ(file_text(dir / "process"),
              "SigBlk 0\nSigIgn 0\n" + fs::current_path().string() + "\n");
    signal(SIGPIPE, old_pipe);
    close(fd);
}

TEST_F(Run, StepGetsOneSigtermAfterFourMinutesAndIsWaitedFor) {
    constexpr gint64 four_minutes = gint64{240} * G_USEC_PER_SEC;
    /* The trap comes before the trace: once that is written, the step is ready for the signal. */
    add({"obeys.run", trace + "; exec sleep 300"});
    add({"resists.run", "trap '' TERM; " + trace + "; exec sleep 300"});
    const gint64 before = g_get_monotonic_time();
    duskvale_run_start(runner, TRUE);
    for (const std::string name : {"obeys.run", "resists.run"}) {
        ASSERT_TRUE(loop_until([&] { return written() == name + " start\n"; }));
        ASSERT_NE(timer(), nullptr);
        EXPECT_GE(g_source_get_ready_time(timer()), before + four_minutes);
        EXPECT_LE(g_source_get_ready_time(timer()), g_get_monotonic_time() + four_minutes);
        Capture log;
        g_source_set_ready_time(timer(), 0); /* four minutes pass */
        EXPECT_TRUE(loop_until([&] { return !log.text().empty(); }));
        EXPECT_EQ(log.text(),
                  "ERR(child_timeout):child_timeout(pid=" + std::to_string(pid) + ")\n");
    }
    EXPECT_EQ(timer(), nullptr) << "no second signal follows";
    EXPECT_NE(watch(), nullptr) << "the sequence waits for the end";
    kill(pid, SIGKILL);
    EXPECT_EQ(told_after(), "obeys.run start 15, resists.run start 9, errors 2. ");
}

TEST_F(Run, ReleasedInMidSequenceItLeavesNoSource) {
    add({"a.run", "exec sleep 300"});
    duskvale_run_start(runner, TRUE);
    ASSERT_NE(watch(), nullptr);
    ASSERT_NE(timer(), nullptr);
    g_clear_object(&runner);
    EXPECT_EQ(watch(), nullptr);
    EXPECT_EQ(timer(), nullptr);
    EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), 0) << "the step itself goes on";
    EXPECT_EQ(kill(pid, SIGKILL), 0);
    EXPECT_EQ(waitpid(pid, nullptr, 0), pid);
}

TEST_F(Run, AgentsMayBeMissing) {
    const DuskvaleRunAgents empty = {};
    add({"a.run"});
    for (const auto *table : {&empty, static_cast<const DuskvaleRunAgents *>(nullptr)}) {
        create(table);
        duskvale_run_start(runner, TRUE);
        EXPECT_TRUE(loop_until([&] { return watch() == nullptr; }));
    }
    EXPECT_EQ(written(), "a.run start\na.run start\n");
}

/* Each skipped file would cost a recursion its frames: a thousand of them, on a small stack. */
TEST_F(Run, ThousandUnspawnableFilesNeedNoStack) {
    for (int i = 0; i < 1000; i++) {
        add({std::to_string(i) + ".run", "", 0644});
    }
    Capture log;
    pthread_attr_t small;
    pthread_attr_init(&small);
    pthread_attr_setstacksize(&small, 131072);
    pthread_t thread;
    const auto start = [](void *self) -> void * {
        return GINT_TO_POINTER(duskvale_run_start(static_cast<DuskvaleRun *>(self), FALSE));
    };
    ASSERT_EQ(pthread_create(&thread, &small, start, runner), 0);
    pthread_join(thread, nullptr);
    EXPECT_EQ(told, "errors 0. ");
    EXPECT_EQ(std::ranges::count(log.text(), '\n'), 1000);
}

} // namespace
