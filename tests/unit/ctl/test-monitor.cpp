/* monitor: every announcement in words and as JSON, over restarts, to its clean end. */
#include "ctl/cluster.h"

class Monitor : public ClusterTest {
protected:
    bool shows(const Child &child, const std::string &text) {
        return loop_until([&] { return child.stdout_text().find(text) != std::string::npos; });
    }

    void announce_everything() {
        duskvale_notify_new_master(dbus, local);
        duskvale_notify_runstep_begin(dbus, "/usr/share/duskvale/run.d/10-db.run", "start");
        duskvale_notify_runstep_end(dbus, "/usr/share/duskvale/run.d/10-db.run", "start", 0);
        duskvale_notify_runstep_end(dbus, "/usr/share/duskvale/run.d/20-x.run", "start", 15);
        duskvale_notify_runsteps_done(dbus, 1);
        duskvale_notify_left(dbus, other, 1);
        duskvale_notify_joined(dbus, other, 2);
        duskvale_notify_frozen_master(dbus, other, "disk\treplacement");
        duskvale_notify_frozen_master(dbus, 0, "done");
        duskvale_notify_frozen_master(dbus, 0, "");
        duskvale_notify_keep_alive(dbus, other);
        duskvale_notify_got_message(dbus, "two\nlines");
        duskvale_notify_lumacrate_hotplug(dbus, other, 1, TRUE, "LC-200", "rack 2", "/sys/x");
        duskvale_notify_lumacrate_hotplug(dbus, local, 2, FALSE, "", "", "/sys/y");
    }
};

TEST_F(Monitor, showsEverythingInWordsAndSurvivesARestart) {
    up(other);
    Child child([] { exec_duskvalectl({"monitor"}); });
    ASSERT_TRUE(shows(child, "this is node 7"));
    announce_everything();
    ASSERT_TRUE(shows(child, "/sys/y"));
    stop();
    ASSERT_TRUE(shows(child, "not running"));
    up(0, 1);
    ASSERT_TRUE(shows(child, "no master is known"));
    kill(child.id(), SIGINT);
    expect_timed_golden("monitor", transcript({"monitor"}, outcome_of(child)));
}

TEST_F(Monitor, speaksJsonAndWaitsForADaemon) {
    stop();
    Child child([] { exec_duskvalectl({"monitor", "--json"}); });
    ASSERT_TRUE(shows(child, "daemon-vanished"));
    up(other);
    ASSERT_TRUE(shows(child, "\"state\""));
    announce_everything();
    ASSERT_TRUE(shows(child, "/sys/y"));
    kill(child.id(), SIGTERM);
    const Outcome outcome = outcome_of(child);
    /* What was announced before the state was asked for may or may not come through. */
    const size_t state = outcome.out.rfind('\n', outcome.out.find("\"state\"")) + 1;
    expect_timed_golden("monitor.json",
                        transcript({"monitor", "--json"},
                                   {outcome.status, outcome.out.substr(state), outcome.err}));
}

TEST_F(Monitor, endsWhenNobodyReadsAnyMore) {
    up(other);
    const Outcome outcome = shell("set -o pipefail; duskvalectl monitor | head -n 1");
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.err, "");
}

TEST_F(Monitor, saysWhenTheBusGoes) {
    up(other);
    /* A bus of its own, since the one of the other tests must stay. */
    Bus own;
    Child child([] { exec_duskvalectl({"monitor"}); });
    setenv("DBUS_SYSTEM_BUS_ADDRESS", bus().address.c_str(), 1);
    ASSERT_TRUE(shows(child, "not running"));
    own.stop();
    EXPECT_EQ(child.end(), 7);
    EXPECT_THAT(child.stderr_text(), HasSubstr("the system bus cannot be reached"));
}
