/* The operator's requests: granted, refused, waited for; and waiting by itself. */
#include "ctl/cluster.h"

#include <sys/mount.h>

class Requests : public ClusterTest {};

TEST_F(Requests, areSentAndConfirmed) {
    up(other);
    std::string text = session({{"take-over"}});
    up(local);
    text += session({{"give-back"}});
    up(other);
    text += session({{"freeze", " disk replacement "},
                     {"unfreeze"},
                     {"prefer", "on"},
                     {"prefer", "off"},
                     {"send", "going down in 5 minutes"},
                     {"keep-alive"}});
    expect_golden("requests", text);
}

TEST_F(Requests, waitForTheirEffectAndTheSteps) {
    up(other);
    std::string text = session({{"take-over", "--wait"},
                                {"give-back", "--wait"},
                                {"freeze", "disk replacement", "--wait=20"}});
    text += session({{"prefer", "on", "--wait"}, {"unfreeze", "--wait"}});
    /* The election that follows moves mastership here. */
    on_prefer = [this] { apply(local); };
    text += session({{"prefer", "off", "--wait"}});
    step_status = 512;
    text += session({{"take-over", "--wait"}});
    expect_timed_golden("requests-wait", text);
}

TEST_F(Requests, areRefusedWithAReasonAndAWayOn) {
    up(other);
    duskvale_notify_frozen_master(dbus, other, "kernel upgrade");
    std::string text = session({{"take-over", "--wait"}});
    duskvale_notify_left(dbus, other, 1);
    text += session({{"take-over"}, {"unfreeze"}});
    up(local, 1);
    text += session({{"take-over"}, {"give-back"}, {"freeze", "why not"}});
    up(other);
    text += session({{"give-back"}});
    up(0);
    text += session({{"give-back"}, {"freeze", "why not"}});
    EXPECT_EQ(asked(), "");
    expect_golden("requests-refused", text);
}

TEST_F(Requests, sayWhenTheyDidNotTakeEffectOrDidNotHold) {
    up(other);
    on_take_over = [] {};
    std::string text = session({{"take-over", "--wait=0.3"}});
    on_take_over = [this] { duskvale_notify_new_master(dbus, local); };
    text += session({{"take-over", "--wait=0.3"}});
    on_take_over = [this] {
        duskvale_notify_new_master(dbus, local);
        duskvale_notify_runstep_begin(dbus, "/usr/share/duskvale/run.d/10-slow.run", "start");
    };
    text += session({{"take-over", "--wait=0.3"}});
    up(other);
    on_take_over = [this] {
        apply(local);
        duskvale_notify_new_master(dbus, other);
    };
    text += session({{"take-over", "--wait"}});
    expect_timed_golden("requests-unfulfilled", text);
}

TEST_F(Requests, sayWhenACorosyncThatIsStalledKeepsThem) {
    up(other);
    on_take_over = [] {};
    /* The status with which timeout(1) ends a program that does not answer. */
    const Outcome outcome = shell("mkdir -p /mnt/tools; PATH=/mnt/tools:$PATH\n"
                                  "printf '#!/bin/sh\\nexit 124' >/mnt/tools/corosync-cmapctl\n"
                                  "chmod 755 /mnt/tools/*; duskvalectl take-over --wait=0.1");
    EXPECT_EQ(outcome.status, 5);
    EXPECT_THAT(outcome.err, HasSubstr("may still take effect"));
}

TEST_F(Requests, sayWhenTheirResultIsNotOnTheDisk) {
    up(other);
    const char *directory = "/etc/duskvale";
    ASSERT_EQ(mount("none", directory, "tmpfs", 0, "size=4096"), 0);
    std::ofstream(std::string(directory) + "/full") << std::string(4096, 'x');
    std::string text = session({{"freeze", "night"}, {"freeze", "night", "--wait"}, {"unfreeze"}});
    text += session({{"prefer", "on"}, {"prefer", "off", "--wait"}});
    ASSERT_EQ(umount(directory), 0);
    expect_timed_golden("requests-lost", text);
}

TEST_F(Requests, waitForStepsThatWereRememberedBehindOthers) {
    up(other);
    /* An earlier sequence still runs when this node takes over: its end is not the end of the
       steps asked for, though InTransition falls with it. */
    on_take_over = [this] {
        duskvale_notify_new_master(dbus, local);
        later([this] {
            after_steps = [this] {
                step_status = 256;
                run_steps(true);
            };
            run_steps(false);
        });
    };
    const Outcome outcome = duskvalectl({"take-over", "--wait"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(outcome.out, HasSubstr("4 run steps done, 1 FAILED"));
}

TEST_F(Requests, sayWhenTheDaemonEndsMeanwhile) {
    up(other);
    on_take_over = [this] { stop(); };
    corosync_runs(true);
    EXPECT_EQ(duskvalectl({"take-over", "--wait"}).status, 4);
}

TEST_F(Requests, missNothingThatIsAnnouncedBehindTheState) {
    up(other);
    while_read = [this] { later([this] { apply(local); }); };
    EXPECT_EQ(duskvalectl({"wait", "master", "--timeout=5"}).status, 0);
    /* Announced before the answer to the request. */
    up(other);
    immediate = true;
    EXPECT_EQ(duskvalectl({"take-over", "--wait=5"}).status, 0);
}

TEST_F(Requests, showTheStepsAsTheyGoOnATerminal) {
    up(other);
    step_status = 512;
    setenv("NO_COLOR", "1", 1);
    expect_timed_golden("requests-terminal", on_terminal("take-over --wait"));
    unsetenv("NO_COLOR");
}

TEST_F(Requests, reportDevicesAsTheRuleOfUdevWould) {
    up(other);
    const std::string device = "/mnt/device";
    std::filesystem::create_directories(device);
    std::ofstream(device + "/hardware_id") << "LC-200\xff \n";
    EXPECT_EQ(duskvalectl({"hotplug", "add", device}).status, 0);
    EXPECT_EQ(asked(), "hotplug 1 " + device + " LC-200\xef\xbf\xbd ;");
    EXPECT_EQ(duskvalectl({"hotplug", "remove", "/devices/crate/1-1"}).status, 0);
    EXPECT_EQ(asked(), "hotplug 0 /sys/devices/crate/1-1  ;");
}

TEST_F(Requests, waitForARoleOrForRest) {
    up(other);
    std::string text = session({{"wait", "slave"},
                                {"wait", "stable"},
                                {"wait", "stable", "--timeout=1"},
                                {"wait", "stable", "--timeout=0.2"},
                                {"wait", "master", "--timeout=0.2"}});
    duskvale_notify_new_master(dbus, local);
    text += session({{"wait", "master", "--timeout=0.2"}, {"wait", "stable", "--timeout=0.2"}});
    stop();
    text += session({{"wait", "stable", "--timeout=0.2"}});
    expect_golden("wait", text);
}
