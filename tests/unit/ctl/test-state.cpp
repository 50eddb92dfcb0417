/* What the state looks like: status, check and metrics; and the states of not being reached. */
#include "ctl/cluster.h"

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
    text += "### frozen to another, without a reason\n" + session({{"status"}, {"check"}});
    duskvale_notify_frozen_master(dbus, other, "100% |x, \u202egnp\u2028\u200b");
    text += "### a reason that could be read as figures, or hide something\n" +
            session({{"status"}, {"check"}});
    expect_golden("state", text);
}

TEST_F(State, isColouredOnlyOnATerminalAndNeverWithNoColor) {
    up(local);
    EXPECT_THAT(on_terminal("status"), HasSubstr("\033[32m"));
    setenv("NO_COLOR", "1", 1);
    EXPECT_EQ(on_terminal("status"), duskvalectl({"status"}).out);
    unsetenv("NO_COLOR");
    EXPECT_THAT(duskvalectl({"status"}).out, Not(HasSubstr("\033")));
}

TEST_F(State, saysWhatIsMissingAndWhatToTry) {
    stop();
    const auto all = [this] {
        return session({{"status"}, {"status", "--json"}, {"check"}, {"metrics"}, {"take-over"}});
    };
    corosync_runs(false);
    std::string text = "### no corosync\n" + all();
    corosync_runs(true);
    text += "### no daemon\n" + all();
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent", 1);
    text += "### no bus\n" + all();
    setenv("DBUS_SYSTEM_BUS_ADDRESS", bus().address.c_str(), 1);
    expect_golden("missing", text);
}

TEST_F(State, ofADaemonThatDoesNotAnswerIsAStateOfItsOwn) {
    up(other);
    Child child([] { exec_duskvalectl({"status", "--json"}); });
    /* Waited for without turning the loop that the daemon would answer from. */
    int status = 0;
    ASSERT_EQ(waitpid(child.id(), &status, 0), child.id());
    EXPECT_EQ(WEXITSTATUS(status), 5);
    EXPECT_THAT(child.stdout_text(), HasSubstr("\"no-answer\""));
}

TEST_F(State, ofADaemonThatEndsDuringACallIsThatItDoesNotRun) {
    up(other);
    stop();
    const Child daemon([] {
        DBusConnection *own = dbus_bus_get_private(DBUS_BUS_SYSTEM, nullptr);
        dbus_bus_request_name(own, DUSKVALE_BUS_NAME, 0, nullptr);
        while (dbus_connection_read_write(own, -1) != 0) {
            while (DBusMessage *message = dbus_connection_pop_message(own)) {
                if (dbus_message_has_member(message, "GetAll") != 0) {
                    _exit(0);
                }
            }
        }
    });
    ASSERT_TRUE(loop_until([this] {
        return client.driver("NameHasOwner", "('" DUSKVALE_BUS_NAME "',)") == "(true,)";
    }));
    corosync_runs(true);
    EXPECT_EQ(duskvalectl({"status"}).status, 4);
}

TEST_F(State, metricsAreWhatParsersOfBothTextFormatsRead) {
    up(local);
    const std::string parsed =
        "duskvalectl metrics | /usr/bin/python3 $SOURCE_ROOT/tests/unit/ctl/parse-metrics.py"
        " | sed 's/program_version=[^}]*/program_version=X.Y.Z/'";
    std::string text = shell(parsed).out;
    stop();
    expect_golden("metrics-parsed", text + "### without a daemon\n" + shell(parsed).out);
}

TEST_F(State, thatCannotBeWrittenIsAFailureUnlessNobodyReadsIt) {
    up(local);
    const Outcome outcome = shell("duskvalectl status >/dev/full");
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(outcome.err, HasSubstr("cannot write"));
    /* Once the pipe's reader has gone. */
    const Outcome unread = shell("trap '' PIPE; set -o pipefail\n"
                                 "{ while printf ' ' 2>&-; do :; done; duskvalectl status; } | :");
    EXPECT_EQ(unread.status, 0);
    EXPECT_EQ(unread.err, "");
}
