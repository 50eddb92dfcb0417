#include "run/duskvale-run.h"

#include "base/log.h"
#include "support/capture.h"
#include "support/loop.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

namespace {

/* Writes down that it ran, and with what. */
const std::string trace = R"(echo "${0##*/} $*" >>"${0%/*}/trace")";

struct Step {
    std::string name;
    std::string body = trace;
    int mode = 0755;
};

/* What the owner of a runner sees, one line a call. */
struct Owner {
    Lines calls;
    GPid pid = 0;
    int done = 0;

    static std::string describe(const char *step, gboolean is_master) {
        return fs::path(step).filename().string() + (is_master ? " master" : " slave");
    }
    static int step_start(gpointer data, const char *step, gboolean is_master, GPid pid) {
        auto *self = static_cast<Owner *>(data);
        self->pid = pid;
        self->calls.push_back("start " + describe(step, is_master));
        return 0;
    }
    static void step_end(gpointer data, const char *step, gboolean is_master, GPid pid,
                         int status) {
        auto *self = static_cast<Owner *>(data);
        EXPECT_EQ(pid, self->pid);
        self->calls.push_back("end " + describe(step, is_master) + " " + std::to_string(status));
    }
    static int steps_done(gpointer data, int errors) {
        auto *self = static_cast<Owner *>(data);
        self->done++;
        self->calls.push_back("done " + std::to_string(errors));
        return 0;
    }
};
const DuskvaleRunAgents agents = {Owner::step_start, Owner::step_end, Owner::steps_done, nullptr};

class Run : public testing::Test {
protected:
    void SetUp() override {
        char name[] = "/tmp/test-run-XXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        dir = name;
        runner = duskvale_run_new(dir.c_str(), &agents, &owner);
        address = runner;
    }
    void TearDown() override {
        EXPECT_EQ(watch(), nullptr) << "a child watch was left behind";
        EXPECT_EQ(timer(), nullptr) << "a time-out was left behind";
        g_clear_object(&runner);
        fs::remove_all(dir);
    }

    void add(const Step &step) const {
        std::ofstream(dir / step.name) << "#!/bin/sh\n" << step.body << "\n";
        fs::permissions(dir / step.name, static_cast<fs::perms>(step.mode));
    }
    /* Runs until the owner was told of `times` ended sequences. */
    void wait_done(int times = 1) {
        EXPECT_TRUE(loop_until([&] { return owner.done >= times; }));
    }
    std::string written() const {
        std::ostringstream text;
        text << std::ifstream(dir / "trace").rdbuf();
        return text.str();
    }
    std::string with_dir(std::string text) const {
        for (size_t at = 0; (at = text.find("$DIR", at)) != std::string::npos;) {
            text.replace(at, 4, dir.string());
        }
        return text;
    }
    GSource *watch() const {
        return g_main_context_find_source_by_funcs_user_data(nullptr, &g_child_watch_funcs,
                                                             address);
    }
    GSource *timer() const {
        return g_main_context_find_source_by_funcs_user_data(nullptr, &g_timeout_funcs, address);
    }

    Owner owner;
    fs::path dir;
    DuskvaleRun *runner = nullptr;
    gpointer address = nullptr; /* of the runner, known also after its release */
};

template <typename Case>
std::string case_name(const testing::TestParamInfo<Case> &param) {
    return param.param.name;
}

/* A directory of steps, the role, and what becomes of it. */
struct Sequence {
    const char *name;
    std::vector<Step> steps;
    gboolean is_master;
    const char *trace;
    Lines calls;
    std::string log = {}; /* with $DIR for the run directory */
};

class RunSequence : public Run, public testing::WithParamInterface<Sequence> {};

std::string denied(const char *name) {
    return std::string("ERR(run_next):Failed to execute child process “$DIR/") + name +
           "” (Permission denied)\n";
}

const Sequence sequences[] = {
    {"MasterStartsAscending",
     {{"b.run"}, {"c.run"}, {"a.run"}},
     TRUE,
     "a.run start\nb.run start\nc.run start\n",
     {"start a.run master", "end a.run master 0", "start b.run master", "end b.run master 0",
      "start c.run master", "end c.run master 0", "done 0"}},
    {"SlaveStopsDescending",
     {{"b.run"}, {"c.run"}, {"a.run"}},
     FALSE,
     "c.run stop\nb.run stop\na.run stop\n",
     {"start c.run slave", "end c.run slave 0", "start b.run slave", "end b.run slave 0",
      "start a.run slave", "end a.run slave 0", "done 0"}},
    {"NamesAreOrderedByByte",
     {{"a.run"}, {"B.run"}, {"9.run"}, {"10.run"}},
     TRUE,
     "10.run start\n9.run start\nB.run start\na.run start\n",
     {"start 10.run master", "end 10.run master 0", "start 9.run master", "end 9.run master 0",
      "start B.run master", "end B.run master 0", "start a.run master", "end a.run master 0",
      "done 0"}},
    {"OtherNamesAreNotRun",
     {{".x.run"}, {"x.run.bak"}, {"x.Run"}, {"xrun"}, {"x y.run"}},
     TRUE,
     "x y.run start\n",
     {"start x y.run master", "end x y.run master 0", "done 0"}},
    {"FailuresAreCountedAndDoNotStop",
     {{"a.run", trace + "; exit 3"}, {"b.run", trace + "; kill -9 $$"}, {"c.run"}},
     TRUE,
     "a.run start\nb.run start\nc.run start\n",
     {"start a.run master", "end a.run master 768", "start b.run master", "end b.run master 9",
      "start c.run master", "end c.run master 0", "done 2"}},
    {"UnspawnableFilesAreSkippedByAMaster",
     {{"a.run", trace, 0644}, {"b.run", trace, 0644}, {"c.run"}, {"d.run", trace, 0644}},
     TRUE,
     "c.run start\n",
     {"start c.run master", "end c.run master 0", "done 0"},
     denied("a.run") + denied("b.run") + denied("d.run")},
    {"UnspawnableFilesAreSkippedByASlave",
     {{"a.run", trace, 0644}, {"b.run"}, {"c.run", trace, 0644}},
     FALSE,
     "b.run stop\n",
     {"start b.run slave", "end b.run slave 0", "done 0"},
     denied("c.run") + denied("a.run")},
    {"NothingCanBeSpawned",
     {{"a.run", trace, 0644}, {"b.run", trace, 0644}},
     FALSE,
     "",
     {"done 0"},
     denied("b.run") + denied("a.run")},
    {"EmptyDirectory", {}, TRUE, "", {"done 0"}},
};

TEST_P(RunSequence, RunsSteps) {
    const Sequence &sequence = GetParam();
    for (const Step &step : sequence.steps) {
        add(step);
    }
    Capture log;
    EXPECT_TRUE(duskvale_run_start(runner, sequence.is_master));
    wait_done();
    EXPECT_EQ(log.text(), with_dir(sequence.log));
    EXPECT_EQ(owner.calls, sequence.calls);
    EXPECT_EQ(written(), sequence.trace);
}
INSTANTIATE_TEST_SUITE_P(Table, RunSequence, testing::ValuesIn(sequences), case_name<Sequence>);

TEST_F(Run, DirectoryNamedLikeAStepIsSkipped) {
    fs::create_directory(dir / "a.run");
    add({"b.run"});
    Capture log;
    duskvale_run_start(runner, TRUE);
    wait_done();
    EXPECT_EQ(log.text(), with_dir(denied("a.run")));
    EXPECT_EQ(written(), "b.run start\n");
}

TEST_F(Run, MissingDirectoryEndsAtOnceAndIsNotRemembered) {
    fs::remove(dir);
    Capture log;
    EXPECT_TRUE(duskvale_run_start(runner, FALSE));
    EXPECT_EQ(owner.calls, Lines{"done 0"}) << "before the return";
    EXPECT_EQ(log.take(), with_dir("ERR(duskvale_run_start):Failed glob($DIR/*.run): 2\n"));

    fs::create_directory(dir);
    add({"a.run"});
    duskvale_run_start(runner, TRUE);
    wait_done(2);
    EXPECT_EQ(written(), "a.run start\n");
    EXPECT_EQ(log.text(), "");
}

TEST_F(Run, LastRoleAskedForMeanwhileRunsAfterwards) {
    add({"a.run", trace + "; exit 1"});
    Capture log;
    duskvale_run_start(runner, TRUE);
    EXPECT_TRUE(duskvale_run_start(runner, TRUE));
    EXPECT_TRUE(duskvale_run_start(runner, FALSE));
    wait_done(2);
    EXPECT_EQ(owner.calls, (Lines{"start a.run master", "end a.run master 256", "done 1",
                                  "start a.run slave", "end a.run slave 256", "done 1"}))
        << "errors are counted anew";
    EXPECT_EQ(log.text(), "INFO: Already running -- remember pending transition (is_master=1)\n"
                          "INFO: Already running -- remember pending transition (is_master=0)\n"
                          "INFO: Run pending transition (is_master=0)\n");
    /* The pending role was used up. */
    duskvale_run_start(runner, TRUE);
    wait_done(3);
    EXPECT_EQ(written(), "a.run start\na.run stop\na.run start\n");
}

TEST_F(Run, PendingRoleFindsNoStepLeft) {
    add({"a.run", trace + R"(; rm "$0")"});
    duskvale_run_start(runner, TRUE);
    duskvale_run_start(runner, FALSE);
    wait_done(2);
    EXPECT_EQ(owner.calls, (Lines{"start a.run master", "end a.run master 0", "done 0", "done 0"}));
}

TEST_F(Run, StepGetsACleanProcess) {
    /* What a step could wrongly inherit: an open descriptor, an ignored signal. */
    const int fd = open("/dev/null", O_RDONLY);
    const auto old_pipe = signal(SIGPIPE, SIG_IGN);
    add({"a.run", trace + R"(
grep -E '^Sig(Blk|Ign)' /proc/self/status >>"${0%/*}/trace"
readlink /proc/$$/cwd >>"${0%/*}/trace"
[ ! -e /proc/$$/fd/)" +
                      std::to_string(fd) + " ]"});
    duskvale_run_start(runner, TRUE);
    wait_done();
    EXPECT_EQ(owner.calls.back(), "done 0");
    EXPECT_EQ(written(), "a.run start\nSigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n" +
                             fs::current_path().string() + "\n");
    signal(SIGPIPE, old_pipe);
    close(fd);
}

/* What a step makes of the one SIGTERM, and the wait status that it ends with. */
struct Overtime {
    const char *name;
    const char *trap;
    const char *rest;
    bool ignores;
    int status;
};

constexpr gint64 four_minutes = gint64{240} * G_USEC_PER_SEC;

class RunOvertime : public Run, public testing::WithParamInterface<Overtime> {};

const Overtime overtimes[] = {
    {"EndsByTheSignal", "", "exec sleep 300", false, 15},
    {"EndsByItsHandler", "trap 'exit 7' TERM", "while :; do sleep 0.01; done", false, 7 << 8},
    {"IgnoresIt", "trap '' TERM", "exec sleep 300", true, 9},
};

TEST_P(RunOvertime, GetsOneSigtermAfterFourMinutes) {
    const Overtime &overtime = GetParam();
    /* The trap comes before the trace: once that is written, the step is ready for the signal. */
    add({"a.run", std::string(overtime.trap) + "\n" + trace + "\n" + overtime.rest});
    add({"b.run"});
    const gint64 before = g_get_monotonic_time();
    duskvale_run_start(runner, TRUE);
    const gint64 after = g_get_monotonic_time();
    ASSERT_NE(timer(), nullptr);
    EXPECT_GE(g_source_get_ready_time(timer()), before + four_minutes);
    EXPECT_LE(g_source_get_ready_time(timer()), after + four_minutes);
    ASSERT_TRUE(loop_until([&] { return written() == "a.run start\n"; }));

    Capture log;
    g_source_set_ready_time(timer(), 0); /* four minutes pass */
    ASSERT_TRUE(loop_until([&] { return !log.text().empty(); }));
    EXPECT_EQ(log.text(),
              "ERR(child_timeout):child_timeout(pid=" + std::to_string(owner.pid) + ")\n");
    if (overtime.ignores) {
        EXPECT_EQ(timer(), nullptr) << "no second signal follows";
        EXPECT_NE(watch(), nullptr) << "the sequence waits for the end";
        EXPECT_EQ(kill(owner.pid, SIGKILL), 0);
    }
    wait_done();
    EXPECT_EQ(owner.calls,
              (Lines{"start a.run master", "end a.run master " + std::to_string(overtime.status),
                     "start b.run master", "end b.run master 0", "done 1"}));
}
INSTANTIATE_TEST_SUITE_P(Table, RunOvertime, testing::ValuesIn(overtimes), case_name<Overtime>);

TEST_F(Run, ReleasedInMidSequenceItLeavesNoSource) {
    add({"a.run", "exec sleep 300"});
    duskvale_run_start(runner, TRUE);
    ASSERT_NE(watch(), nullptr);
    ASSERT_NE(timer(), nullptr);
    g_clear_object(&runner);
    EXPECT_EQ(watch(), nullptr);
    EXPECT_EQ(timer(), nullptr);

    EXPECT_EQ(waitpid(owner.pid, nullptr, WNOHANG), 0) << "the step itself goes on";
    EXPECT_EQ(kill(owner.pid, SIGKILL), 0);
    EXPECT_EQ(waitpid(owner.pid, nullptr, 0), owner.pid);
}

TEST_F(Run, AgentsMayBeMissing) {
    const DuskvaleRunAgents empty = {};
    add({"a.run"});
    std::string expected;
    for (const DuskvaleRunAgents *table :
         {static_cast<const DuskvaleRunAgents *>(nullptr), &empty}) {
        g_clear_object(&runner);
        address = runner = duskvale_run_new(dir.c_str(), table, nullptr);
        duskvale_run_start(runner, TRUE);
        EXPECT_TRUE(loop_until([&] { return watch() == nullptr; }));
        expected += "a.run start\n";
    }
    EXPECT_EQ(written(), expected);
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
    ASSERT_EQ(pthread_create(
                  &thread, &small,
                  [](void *data) -> void * {
                      duskvale_run_start(static_cast<DuskvaleRun *>(data), FALSE);
                      return nullptr;
                  },
                  runner),
              0);
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&small);
    EXPECT_EQ(owner.calls, Lines{"done 0"});
    const std::string text = log.text();
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1000);
}

TEST_F(Run, DebugLinesFollowASequence) {
    add({"a.run"});
    add({"b.run", "", 0644});
    duskvale_debug_set_level(LOG_DEBUG);
    duskvale_debug_set_categories(1 << static_cast<int>(LogCategory::run));
    Capture log;
    g_clear_object(&runner);
    address = runner = duskvale_run_new(dir.c_str(), &agents, &owner);
    duskvale_run_start(runner, FALSE);
    wait_done();
    fs::remove(dir / "a.run");
    fs::remove(dir / "b.run");
    duskvale_run_start(runner, TRUE);
    g_clear_object(&runner);
    duskvale_debug_set_level(0);

    const std::string pid = std::to_string(owner.pid);
    EXPECT_EQ(log.text(), with_dir("DBG(RUN): duskvale_run_finalize: \n"
                                   "DBG(RUN): duskvale_run_new: \n"
                                   "DBG(RUN): duskvale_run_init: \n"
                                   "DBG(RUN): duskvale_run_start: \n"
                                   "DBG(RUN): run_next: running: $DIR/b.run (0)\n" +
                                   denied("b.run") +
                                   "DBG(RUN): run_step_advance: idx=1\n"
                                   "DBG(RUN): run_next: running: $DIR/a.run (0)\n"
                                   "DBG(RUN): child_watch_callback: child_watch_callback(pid=" +
                                   pid +
                                   ", status=0)\n"
                                   "DBG(RUN): run_step_advance: idx=0\n"
                                   "DBG(RUN): run_steps_done: Finished (slave)\n"
                                   "DBG(RUN): duskvale_run_start: \n"
                                   "DBG(RUN): duskvale_run_start: No match ($DIR/*.run)\n"
                                   "DBG(RUN): run_steps_done: Finished (master)\n"
                                   "DBG(RUN): duskvale_run_finalize: \n"));
}

} // namespace
