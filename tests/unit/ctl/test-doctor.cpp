/* What the doctor finds on a healthy node, and on nodes that are broken in one way after another.
   Corosync's programs and systemctl are stood in for: what they say is what differs. */
#include "ctl/cluster.h"

#include <sys/mount.h>
#include <sys/stat.h>

#include <algorithm>

namespace fs = std::filesystem;

namespace {

const fs::path steps = "/usr/share/duskvale/run.d";
const fs::path policies = "/usr/share/dbus-1/system.d";

void write_program(const fs::path &path, const std::string &text,
                   fs::perms mode = fs::perms(0755)) {
    std::ofstream(path) << text;
    permissions(path, mode);
}

std::string saying(const std::string &text) {
    return "#!/bin/sh\ncat <<'END'\n" + text + "END\n";
}

/* Nodes 3, 7 and the big one are listed; 7 is this node. */
std::string ring_of(const std::vector<std::string> &members) {
    std::string text = "nodelist.local_node_pos (u32) = 1\n"
                       "nodelist.node.0.nodeid (u32) = 3\n"
                       "nodelist.node.1.nodeid (u32) = 7\n"
                       "nodelist.node.2.nodeid (u32) = 3232235777\n"
                       "runtime.members.12.status (str) = left\n";
    for (const std::string &member : members) {
        text += "runtime.members." + member + ".status (str) = joined\n";
    }
    return saying(text);
}

std::string group_of(const std::vector<std::string> &processes) {
    std::string text = "GRP_NAME|PID|NODEID\nother|5|7\n";
    for (const std::string &process : processes) {
        text += "duskvale|" + process + "\n";
    }
    return saying(text);
}

std::string unit_is(const std::string &load, const std::string &file, const std::string &active,
                    const std::string &sub, const std::string &result) {
    return saying("LoadState=" + load + "\nUnitFileState=" + file + "\nActiveState=" + active +
                  "\nSubState=" + sub + "\nResult=" + result + "\nNeedDaemonReload=no\n");
}

constexpr const char *daemon_path = "/usr/sbin/duskvale-corosync-bridge";

void exec_daemon() {
    execl("/bin/sleep", daemon_path, "600", nullptr);
    _exit(127);
}

/* Until so many processes have become what looks like a daemon. */
bool daemons_are(std::ptrdiff_t count) {
    return loop_until([count] {
        const fs::directory_iterator processes("/proc");
        return count == std::count_if(begin(processes), end(processes), [](const auto &process) {
                   return file_text(process.path() / "cmdline").starts_with(daemon_path);
               });
    });
}

/* A process that looks like a daemon from outside, and one of its own that it has just forked. */
Child daemon_process() {
    return Child([] {
        if (fork() == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
        }
        exec_daemon();
    });
}

/* The same in a container on this machine. */
Child contained_daemon() {
    return Child([] {
        if (unshare(CLONE_NEWPID) == 0 && fork() == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            exec_daemon();
        }
        pause();
    });
}

} // namespace

class Doctor : public ClusterTest {
protected:
    void SetUp() override {
        fs::create_directories(tools);
        write_program(tools / "corosync-cmapctl", ring_of({"3", "7", "3232235777"}));
        write_program(tools / "corosync-cpgtool", group_of({"41|3", "23|7", "52|-1062731519"}));
        write_program(tools / "systemctl",
                      unit_is("loaded", "enabled", "active", "running", "success"));
        write_program(steps / "10-address.run", "#!/usr/bin/env sh\n");
        write_program(steps / "20-database.run", "#!/bin/sh -e\n");
        for (const char *device : {"a", "b"}) {
            fs::create_directories(std::string("/sys/bus/lumacrates/devices/") + device +
                                   "/lumacrates:" + device);
        }
        up();
    }
    void TearDown() override {
        ClusterTest::TearDown();
        fs::remove_all(tools);
        fs::remove_all("/sys/bus/lumacrates");
        fs::remove_all(steps);
        fs::create_directory(steps);
    }

    /* A node of its own: the network where corosync listens or not, and a /run with systemd. */
    static void enter_node(bool corosync) {
        leave_network(corosync);
        setenv("PATH", (tools.string() + ":" + std::getenv("PATH")).c_str(), 1);
        if (unshare(CLONE_NEWNS) != 0 || mount("node", "/run", "tmpfs", 0, nullptr) != 0) {
            _exit(126);
        }
        fs::create_directories("/run/systemd/system");
    }

    /* What it says of that node after `before`; without what is in order, if `all` is not set. */
    void examine(
        const std::string &title, const Words &words = {"doctor"}, bool corosync = true,
        const std::function<void()> &before = [] {}, bool all = false) {
        drain();
        Child child([&] {
            enter_node(corosync);
            before();
            exec_duskvalectl(words);
        });
        static const std::regex in_order("(^|\n)ok  [^\n]*(?=\n)");
        static const std::regex process("(process(?:es)?) \\d+(?:, \\d+)*");
        std::string shown = transcript(words, outcome_of(child));
        shown = all ? shown : std::regex_replace(shown, in_order, "");
        text += "### " + title + "\n" + std::regex_replace(shown, process, "$1 N");
    }
    void expect(const std::string &golden) { expect_golden(golden, text); }

    static const fs::path tools;
    std::string text;
};

const fs::path Doctor::tools = "/mnt/tools";

TEST_F(Doctor, findsNothingOnAHealthyNode) {
    const Child daemon = daemon_process();
    const Child contained = contained_daemon();
    ASSERT_TRUE(daemons_are(3));
    examine(
        "a healthy node", {"doctor"}, true, [] {}, true);
    examine(
        "for a program", {"doctor", "--json"}, true, [] {}, true);
    expect("doctor-healthy");
}

TEST_F(Doctor, saysWhereCorosyncAndTheGroupAreNotWhole) {
    examine("no corosync", {"doctor"}, false);
    write_program(tools / "corosync-cmapctl", ring_of({"7"}));
    write_program(tools / "corosync-cpgtool", group_of({"23|7", "24|7"}));
    {
        const Child first = daemon_process();
        const Child second = daemon_process();
        ASSERT_TRUE(daemons_are(4));
        examine("alone, with two daemons");
    }
    write_program(tools / "corosync-cmapctl", ring_of({"3", "3232235777"}));
    write_program(tools / "corosync-cpgtool", group_of({"41|3"}));
    examine("not in the ring");
    write_program(tools / "corosync-cmapctl", saying("runtime.members.7.status (str) = joined\n"));
    write_program(tools / "corosync-cpgtool", "#!/bin/sh\necho broken >&2\nexit 1\n");
    examine("a program of corosync fails");
    write_program(tools / "corosync-cpgtool", group_of({"23|7"}));
    examine("without a nodelist");
    write_program(tools / "corosync-cmapctl", "#!/bin/sh\nexec sleep 600\n");
    examine("corosync is stalled");
    expect("doctor-corosync");
}

TEST_F(Doctor, saysWhatKeepsTheDaemonFromRunning) {
    up(0, 0);
    examine("not in the group yet");
    up(local, 1);
    fs::remove_all("/sys/bus/lumacrates/devices/b");
    examine("no peer, and a device report lost");
    stop();
    examine("the policy is lost, the unit not enabled and stopped", {"doctor"}, true, [] {
        mount("none", policies.c_str(), "tmpfs", 0, nullptr);
        write_program(tools / "systemctl",
                      unit_is("loaded", "disabled", "inactive", "dead", "success"));
    });
    const auto unit = [](const std::string &script) {
        return [script] { write_program(tools / "systemctl", script); };
    };
    examine("the unit failed", {"doctor"}, true,
            unit(unit_is("loaded", "enabled", "failed", "failed", "start-limit-hit")));
    examine("the unit is masked", {"doctor"}, true,
            unit(unit_is("masked", "masked", "inactive", "dead", "success")));
    examine("there is no unit", {"doctor"}, true,
            unit(unit_is("not-found", "", "inactive", "dead", "success")));
    examine("no systemd, no bus, no driver", {"doctor"}, true, [] {
        fs::remove_all("/run/systemd");
        fs::remove_all("/sys/bus/lumacrates");
        setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent", 1);
    });
    expect("doctor-daemon");
}

TEST_F(Doctor, saysWhichSettingsWouldBeLostOrDoHarm) {
    const char *frozen = DUSKVALE_FROZEN_MASTER_FILE;
    write_file(frozen, "kernel upgrade\n7\n");
    write_file(DUSKVALE_PREFERRED_MASTER_FILE, "yes\n");
    permissions(fs::path(frozen), fs::perms(0666));
    examine("no numbers, and open to all");
    clear_settings();
    write_file(DUSKVALE_PREFERRED_MASTER_FILE, "1\n");
    fs::create_directory(frozen);
    examine("not a file, and not what the daemon holds");
    clear_settings();
    duskvale_notify_frozen_master(dbus, other, "kept");
    examine("frozen to a node that is there");
    write_program(tools / "corosync-cpgtool", group_of({"41|3", "23|7"}));
    examine("frozen to a node without a daemon");
    write_file(frozen, "9\nold\n");
    examine("the file names another node");
    stop();
    examine("frozen to a node that is not known");
    fs::remove_all("/etc/duskvale");
    examine("no directory");
    fs::create_directory("/etc/duskvale");
    examine("a read-only directory", {"doctor"}, true,
            [] { mount("none", "/etc/duskvale", "tmpfs", MS_RDONLY, nullptr); });
    expect("doctor-settings");
}

TEST_F(Doctor, saysWhichStepsWillNotRunAndWhoCouldChangeThem) {
    write_program(steps / "30 new.run", "#!/bin/sh\n", fs::perms(0644));
    write_program(steps / "31-lost.run", "#!/opt/none/python\n");
    write_program(steps / "32-env.run", "#!/usr/bin/env no-such-program\n");
    write_program(steps / "33-env.run", "#!/usr/bin/env -S no-such-program -x\n");
    write_program(steps / "34-dos.run", "#!/bin/sh\r\n");
    write_program(steps / "35-bare.run", "echo\n");
    write_program(steps / "36-open.run", "#!/bin/sh\n", fs::perms(0777));
    write_program(steps / "37-group.run", "#!/bin/sh\n", fs::perms(0775));
    write_program(steps / "38-staff.run", "#!/bin/sh\n", fs::perms(0775));
    write_program(steps / "39-theirs.run", "#!/bin/sh\n");
    ASSERT_EQ(chown((steps / "38-staff.run").c_str(), 0, 50), 0);
    ASSERT_EQ(chown((steps / "39-theirs.run").c_str(), 1000, 0), 0);
    fs::create_directory(steps / "40-dir.run");
    fs::create_symlink("/nowhere", steps / "41-link.run");
    fs::create_symlink("/bin/true", steps / "42-link.run");
    for (const char *name : {".50-dot.run", "51-edit.run~", "52-\033[2J.sh"}) {
        write_program(steps / name, "#!/bin/sh\n");
    }
    write_program(steps / "README", "", fs::perms(0644));
    permissions(steps, fs::perms(0777));
    examine("steps");
    permissions(steps, fs::perms(0755));
    examine("nothing can be run there", {"doctor"}, true,
            [] { mount("none", steps.c_str(), "tmpfs", MS_NOEXEC, "mode=755"); });
    fs::remove_all(steps);
    examine("no directory");
    expect("doctor-steps");
}

TEST_F(Doctor, saysWhatOnlyRootCouldSee) {
    write_program(tools / "corosync-cmapctl",
                  "#!/bin/sh\necho 'Failed to initialize the cmap API. Error CS_ERR_ACCESS' >&2\n"
                  "exit 1\n");
    write_program(steps / "30-secret.run", "#!/bin/sh\n", fs::perms(0700));
    write_file(DUSKVALE_FROZEN_MASTER_FILE, "7\nsecret\n");
    permissions(fs::path(DUSKVALE_FROZEN_MASTER_FILE), fs::perms(0600));
    permissions(tools, fs::perms(0755));
    permissions(tools.parent_path(), fs::perms(0755));
    const int program = open(std::getenv("DUSKVALECTL"), O_RDONLY | O_CLOEXEC);
    examine("not root", {"doctor"}, true, [&] {
        setenv("DUSKVALECTL", ("/proc/self/fd/" + std::to_string(program)).c_str(), 1);
        if (setresgid(65534, 65534, 65534) != 0 || setresuid(65534, 65534, 65534) != 0) {
            _exit(126);
        }
    });
    close(program);
    expect("doctor-user");
}
