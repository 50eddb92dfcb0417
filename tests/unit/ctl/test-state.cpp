/* What the state looks like: status, check and metrics; and the states of not being reached. */
#include "ctl/cluster.h"

#include <sys/stat.h>

class State : public ClusterTest {};

TEST_F(State, isShownInEveryStage) {
    up(0, 0);
    std::string text = "### before the group\n" + session({{}, {"status", "--json"}, {"check"}});
    up(0, 1);
    text += "### alone, before the election\n" + session({{"status"}, {"check"}});
    up(local, 1);
    text += "### alone\n" + session({{"status"}, {"check"}, {"check", "--members=1"}});
    up(other);
    text += "### a slave of a master with a large id\n" +
            session({{"status"}, {"status", "--json"}, {"check"}, {"check", "--members=4"}});
    up(local);
    duskvale_notify_frozen_master(dbus, local, "kernel upgrade\033[2J");
    duskvale_notify_new_master(dbus, local);
    client.properties("Set", "'PreferredMaster',<true>");
    text += "### the frozen, preferred master in transition\n" +
            session({{"status"}, {"status", "--json"}, {"check"}, {"metrics"}});
    duskvale_notify_frozen_master(dbus, other, "");
    text += "### frozen to another, without a reason\n" + session({{"status"}});
    expect_golden("state", text);
}

TEST_F(State, isColouredOnlyOnATerminalAndNeverWithNoColor) {
    up(local);
    EXPECT_NE(TerminalChild({"status"}).end().find("\033[32m"), std::string::npos);
    setenv("NO_COLOR", "1", 1);
    EXPECT_EQ(TerminalChild({"status"}).end(), duskvalectl({"status"}).out);
    unsetenv("NO_COLOR");
    EXPECT_EQ(duskvalectl({"status"}).out.find('\033'), std::string::npos);
}

TEST_F(State, saysWhatIsMissingAndWhatToTry) {
    stop();
    std::string text;
    const Words lines[] = {{"status"}, {"status", "--json"}, {"check"}, {"metrics"}, {"take-over"}};
    const auto ask = [&](const std::string &title, const std::function<void()> &before) {
        text += "### " + title + "\n";
        for (const Words &words : lines) {
            Child child([&] {
                before();
                exec_duskvalectl(words);
            });
            text += transcript(words, outcome_of(child));
        }
    };
    ask("no corosync", [] { leave_network(false); });
    ask("no daemon", [] { leave_network(true); });
    ask("no bus", [] { setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent", 1); });
    up(other);
    /* The program itself need not be within that user's reach. */
    const int program = open(std::getenv("DUSKVALECTL"), O_RDONLY | O_CLOEXEC);
    const std::string path = "/proc/self/fd/" + std::to_string(program);
    ask("not root", [&] {
        setenv("DUSKVALECTL", path.c_str(), 1);
        if (setresuid(65534, 65534, 65534) != 0) {
            _exit(126);
        }
    });
    close(program);
    expect_golden("missing", text);
}

TEST_F(State, ofADaemonThatDoesNotAnswerIsAStateOfItsOwn) {
    up(other);
    Child child([] { exec_duskvalectl({"status", "--json"}); });
    /* Waited for without turning the loop that the daemon would answer from. */
    int status = 0;
    ASSERT_EQ(waitpid(child.id(), &status, 0), child.id());
    EXPECT_EQ(WEXITSTATUS(status), 5);
    EXPECT_NE(child.stdout_text().find("\"no-answer\""), std::string::npos) << child.stdout_text();
}

TEST_F(State, metricsAreWhatParsersOfBothTextFormatsRead) {
    up(local);
    const std::string file = testing::TempDir() + "metrics";
    for (const bool there : {true, false}) {
        if (!there) {
            stop();
        }
        std::ofstream(file) << duskvalectl({"metrics"}).out;
        Child python([&] {
            const std::string script = source_path("tests/unit/ctl/parse-metrics.py");
            execl("/usr/bin/python3", "python3", script.c_str(), file.c_str(), nullptr);
            _exit(127);
        });
        EXPECT_EQ(python.end(), 0) << python.stderr_text();
        EXPECT_EQ(python.stdout_text(),
                  there ? "duskvale_daemon{node=7,version=1.0} 1\nduskvale_devices 2\n"
                          "duskvale_frozen_node 0\nduskvale_in_transition 0\nduskvale_is_master 1\n"
                          "duskvale_master_node 7\nduskvale_members 3\nduskvale_preferred 0\n"
                          "duskvale_up 1\n"
                        : "duskvale_up 0\n");
    }
}

TEST_F(State, thatCannotBeWrittenIsAFailure) {
    up(local);
    Child child([] {
        dup2(open("/dev/full", O_WRONLY), STDOUT_FILENO);
        exec_duskvalectl({"status"});
    });
    const Outcome outcome = outcome_of(child);
    EXPECT_EQ(outcome.status, 1);
    EXPECT_NE(outcome.err.find("cannot write"), std::string::npos) << outcome.err;
}
