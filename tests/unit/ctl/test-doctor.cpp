/* What the doctor finds on a healthy node, and on nodes that are broken in one way after another.
   Corosync's programs and systemctl are stood in for: what they say is what differs. */
#include "ctl/cluster.h"

#include <sys/mount.h>

#include <algorithm>

namespace fs = std::filesystem;

namespace {

const fs::path tools = "/mnt/tools";
const fs::path steps = "/usr/share/duskvale/run.d";

} // namespace

class Doctor : public ClusterTest {
protected:
    void SetUp() override {
        corosync_says({"3", "7", "3232235777"}, {"41|3", "23|7", "52|-1062731519"});
        unit_is("loaded", "enabled", "active", "running", "success");
        shell("cd /usr/share/duskvale/run.d; echo '#!/usr/bin/env sh' >10-address.run\n"
              "echo '#!/bin/sh -e' >20-database.run; chmod 755 *\n"
              "mkdir -p /sys/bus/lumacrates/devices/{a/lumacrates:a,b/lumacrates:b}");
        up();
        healthy = lines_of(doctor({"doctor"}));
    }
    void TearDown() override {
        ClusterTest::TearDown();
        fs::remove_all(tools);
        fs::remove_all("/sys/bus/lumacrates");
        fs::remove_all(steps);
        fs::create_directory(steps);
    }

    /* A program that the doctor asks is a script. */
    static void stand_in(const std::string &name, const std::string &script) {
        fs::create_directories(tools);
        std::ofstream(tools / name) << "#!/bin/sh\n" << script;
        permissions(tools / name, fs::perms(0755));
    }
    static std::string saying(const std::string &text) { return "cat <<'END'\n" + text + "END\n"; }

    /* Nodes 3, 7 and the big one are listed; 7 is this node. */
    static void corosync_says(const std::vector<std::string> &in_ring,
                              const std::vector<std::string> &in_group) {
        std::string ring = "totem.crypto_cipher (str) = aes256\n"
                           "nodelist.local_node_pos (u32) = 1\n"
                           "nodelist.node.0.nodeid (u32) = 3\n"
                           "nodelist.node.1.nodeid (u32) = 7\n"
                           "nodelist.node.2.nodeid (u32) = 3232235777\n"
                           "runtime.members.12.status (str) = left\n"
                           "runtime.config.totem.token (u32) = 780\n"
                           "runtime.config.totem.consensus (u32) = 936\n";
        for (const std::string &member : in_ring) {
            ring += "runtime.members." + member + ".status (str) = joined\n";
        }
        stand_in("corosync-cmapctl", saying(ring));
        std::string group = "GRP_NAME|PID|NODEID\nother|5|7\n";
        for (const std::string &member : in_group) {
            group += "duskvale|" + member + "\n";
        }
        stand_in("corosync-cpgtool", saying(group));
    }
    static void unit_is(const std::string &load, const std::string &file, const std::string &active,
                        const std::string &sub, const std::string &result,
                        const std::string &first = "") {
        stand_in("systemctl",
                 first +
                     saying("LoadState=" + load + "\nUnitFileState=" + file +
                            "\nActiveState=" + active + "\nSubState=" + sub + "\nResult=" + result +
                            "\nNRestarts=" + (active == "failed" ? "9" : "0") +
                            "\nNeedDaemonReload=" + (file == "disabled" ? "yes" : "no") + "\n"));
    }

    /* What it says after `before` on a node with a /run of its own, with systemd. */
    std::string doctor(
        const Words &words, const std::function<void()> &before = [] {}) {
        drain();
        Child child([&] {
            setenv("PATH", (tools.string() + ":" + std::getenv("PATH")).c_str(), 1);
            if (unshare(CLONE_NEWNS) != 0 || mount("node", "/run", "tmpfs", 0, nullptr) != 0) {
                _exit(126);
            }
            fs::create_directories("/run/systemd/system");
            before();
            exec_duskvalectl(words);
        });
        static const std::regex ids("process \\d+");
        return std::regex_replace(transcript(words, outcome_of(child)), ids, "process N");
    }
    /* How its lines differ from those on the healthy node. */
    void examine(
        const std::string &title, const std::function<void()> &before = [] {}) {
        text += "### " + title + "\n";
        const std::vector<std::string> now = lines_of(doctor({"doctor"}, before));
        for (const std::string &line : healthy) {
            text += std::ranges::count(now, line) == 0 ? "- " + line + "\n" : "";
        }
        for (const std::string &line : now) {
            text += std::ranges::count(healthy, line) == 0 ? "+ " + line + "\n" : "";
        }
        text += "\n";
    }
    static std::vector<std::string> lines_of(const std::string &text) {
        std::istringstream stream(text);
        std::vector<std::string> lines;
        for (std::string line; std::getline(stream, line);) {
            lines.push_back(line);
        }
        return lines;
    }

    std::vector<std::string> healthy;
    std::string text;
};

TEST_F(Doctor, findsNothingOnAHealthyNode) {
    expect_golden("doctor-healthy", "### a healthy node\n" + doctor({"doctor"}) +
                                        "### for a program\n" + doctor({"doctor", "--json"}) +
                                        "### its state\n" + doctor({"status"}));
}

TEST_F(Doctor, saysWhereCorosyncAndTheGroupAreNotWhole) {
    stand_in("corosync-cmapctl", "exit 1\n");
    unit_is("loaded", "enabled", "active", "running", "success", "[ $1 = show ] || exit 3\n");
    examine("no corosync");
    unit_is("loaded", "enabled", "active", "running", "success");
    corosync_says({"7"}, {"23|7", "24|7"});
    examine("alone, with two daemons");
    corosync_says({"3", "3232235777"}, {"41|3"});
    examine("not in the ring");
    corosync_says({"3", "7"}, {"41|3"});
    examine("in the ring alone");
    text += "### for a monitoring system\n" + doctor({"check"});
    stand_in("corosync-cpgtool", "echo broken >&2\nexit 1\n");
    stand_in("corosync-cmapctl", saying("runtime.members.7.status (str) = joined\n"));
    examine("a program of corosync fails");
    corosync_says({}, {"23|7"});
    stand_in("corosync-cmapctl", saying("runtime.members.7.status (str) = joined\n"));
    examine("without a nodelist");
    stand_in("corosync-cmapctl", saying("nodelist.node.0.nodeid (u32) = 7\n"
                                        "nodelist.node.1.nodeid (u32) = 3\n"
                                        "totem.crypto_cipher (str) = none\n"));
    examine("nobody is in the ring, which is not encrypted");
    stand_in("corosync-cmapctl", saying("runtime.members.7.status (str) = joined\n"));
    stop();
    examine("without a nodelist or a daemon");
    stand_in("corosync-cmapctl", "exec sleep 600\n");
    examine("corosync is stalled");
    expect_golden("doctor-corosync", text);
}

TEST_F(Doctor, saysWhatKeepsTheDaemonFromRunning) {
    up(0, 0);
    examine("not in the group yet");
    up(local, 1);
    fs::remove_all("/sys/bus/lumacrates/devices/b");
    examine("no peer, and a device report lost");
    stop();
    unit_is("loaded", "disabled", "inactive", "dead", "success");
    examine("the unit is not enabled, and stopped");
    unit_is("loaded", "enabled", "failed", "failed", "start-limit-hit");
    examine("the unit failed");
    unit_is("masked", "masked", "inactive", "dead", "success");
    examine("the unit is masked");
    unit_is("not-found", "", "inactive", "dead", "success");
    examine("there is no unit");
    examine("no systemd, no bus, no driver", [] {
        fs::remove_all("/run/systemd");
        fs::remove_all("/sys/bus/lumacrates");
        setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent", 1);
    });
    unit_is("loaded", "enabled", "activating", "start-pre", "success");
    corosync_says({"7"}, {});
    examine("the unit waits for the ring");
    expect_golden("doctor-daemon", text);
}

TEST_F(Doctor, saysWhichSettingsWouldBeLostOrDoHarm) {
    shell(
        "cd /etc/duskvale; printf 'kernel upgrade\\n7\\n' >frozen_master; chmod 666 frozen_master\n"
        "echo yes >preferred_master");
    examine("no numbers, and open to all");
    shell("cd /etc/duskvale; rm *; echo 1 >preferred_master; mkdir frozen_master");
    examine("not a file, and not what the daemon holds");
    clear_settings();
    duskvale_notify_frozen_master(dbus, other, "kept");
    examine("frozen to a node that is there");
    corosync_says({"3", "7"}, {"41|3", "23|7"});
    examine("frozen to a node without a daemon");
    write_file(DUSKVALE_FROZEN_MASTER_FILE, "9\nold\n");
    examine("the file names another node");
    stop();
    examine("frozen to a node that is not known");
    fs::remove_all("/etc/duskvale");
    examine("no directory");
    fs::create_directory("/etc/duskvale");
    examine("a read-only directory",
            [] { mount("none", "/etc/duskvale", "tmpfs", MS_RDONLY, "mode=755"); });
    expect_golden("doctor-settings", text);
}

TEST_F(Doctor, saysWhichStepsWillNotRunAndWhoCouldChangeThem) {
    EXPECT_EQ(shell(R"(set -e
cd /usr/share/duskvale/run.d
for name in '30 new.run' 36-open.run 37-group.run 38-staff.run 39-theirs.run \
    .50-dot.run 51-edit.run~ $'52-\e[2J.sh'; do echo '#!/bin/sh' >"$name"; done
echo '#!/opt/none/python' >31-lost.run
echo '#!/usr/bin/env no-such-program' >32-env.run
echo '#!/usr/bin/env -S no-such-program -x' >33-env.run
printf '#!/bin/sh\r\n' >34-dos.run
echo echo >35-bare.run
chmod 755 * .50-dot.run
chmod 644 '30 new.run'
chmod 777 36-open.run .
chmod 775 37-group.run 38-staff.run
chgrp 50 38-staff.run
chown 1000 39-theirs.run
mkdir 40-dir.run
ln -s /nowhere 41-link.run
ln -s /bin/true 42-link.run
touch README)")
                  .status,
              0);
    examine("steps");
    permissions(steps, fs::perms(0755));
    examine("nothing can be run there",
            [] { mount("none", steps.c_str(), "tmpfs", MS_NOEXEC, "mode=755"); });
    fs::remove_all(steps);
    examine("no directory");
    expect_golden("doctor-steps", text);
}

TEST_F(Doctor, saysWhatOnlyRootCouldSee) {
    stand_in("corosync-cmapctl",
             "echo 'Failed to initialize the cmap API. Error CS_ERR_ACCESS' >&2\nexit 1\n");
    shell("cd /usr/share/duskvale/run.d; echo '#!/bin/sh' >30-secret.run; chmod 700 30-secret.run\n"
          "printf '7\\nsecret\\n' >/etc/duskvale/frozen_master; chmod 600 /etc/duskvale/*\n"
          "chmod 755 /mnt /mnt/tools; mkdir -m 777 /mnt/coverage");
    /* The program itself need not be within that user's reach. */
    const int program = open(std::getenv("DUSKVALECTL"), O_RDONLY | O_CLOEXEC);
    examine("not root", [&] {
        setenv("DUSKVALECTL", ("/proc/self/fd/" + std::to_string(program)).c_str(), 1);
        setenv("LLVM_PROFILE_FILE", "/mnt/coverage/%p", 1); /* for a build that counts lines */
        if (setresgid(65534, 65534, 65534) != 0 || setresuid(65534, 65534, 65534) != 0) {
            _exit(126);
        }
    });
    close(program);
    expect_golden("doctor-user", text);
}
