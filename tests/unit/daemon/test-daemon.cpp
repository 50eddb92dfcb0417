#include "support/child.h"
#include "support/file.h"
#include "support/syslog-socket.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

namespace {

namespace fs = std::filesystem;

const std::string usage = "Usage:\n"
                          "bridge [options...]\n"
                          "\t\t[-f]                  # Run in foreground\n"
                          "\t\t[-p pidfile]          # Create pid file\n"
                          "\t\t[-s syslog_facility]  # Log to named syslog facility (default "
                          "'local5')\n"
                          "\t\t[-v]                  # Increase verbosity\n"
                          "\t\t[-d mask]             # Debug mask (0xFF for everything)\n";
const std::string starting = "INFO: add signal handler for signo: 1\n"
                             "INFO: add signal handler for signo: 2\n"
                             "INFO: add signal handler for signo: 15\n"
                             "INFO: Starting\n";
const std::string registered = "INFO: Registered on dbus\n";
const std::string removed = "INFO: remove signal handler for signo: 1\n"
                            "INFO: remove signal handler for signo: 2\n"
                            "INFO: remove signal handler for signo: 15\n";

std::string stopped_by(int signo) {
    return "INFO: GOT SIGNAL: " + std::to_string(signo) + "\nINFO: Ending\n" + removed;
}

/* The daemon, called as "bridge", in `directory`. */
struct Daemon : Child {
    explicit Daemon(std::vector<std::string> args, const char *directory = "/tmp")
        : Child([&] {
              args.insert(args.begin(), "bridge");
              fs::current_path(directory);
              become(DAEMON, args);
          }) {}

    std::string pid() const { return std::to_string(id()); }
};

/* The pid in `path`, once the daemon wrote it whole; -1 if it never did. */
pid_t pid_in(const char *path) {
    return loop_until([&] { return file_text(path).ends_with('\n'); }) ? std::stoi(file_text(path))
                                                                       : -1;
}

} // namespace

TEST(CommandLine, RefusesWhatItDoesNotKnowWithTheUsageAndStatus1) {
    const std::string no_facility = "ERR(duskvale_debug_syslog):Unknown syslog facility 'mark'"
                                    "ERR(main):Failed opening syslog";
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{"-h"}, "ERR(main):Unknown option 'h'\n"},
        {{"-d"}, "bridge: option requires an argument -- 'd'\nERR(main):Unknown option '?'\n"},
        {{"-f", "-x", "-h"}, "bridge: invalid option -- 'x'\nERR(main):Unknown option '?'\n"},
        {{"-s", "mark"}, no_facility},
        {{"-f", "-s", "mark"}, no_facility},
    };
    for (const auto &[args, complaint] : cases) {
        Daemon daemon(args);
        EXPECT_EQ(daemon.end(), 1);
        EXPECT_EQ(daemon.stderr_text(), complaint + usage);
    }
}

TEST(Foreground, RunsUntilAnyStopSignalAndLogsToStandardErrorOnly) {
    for (const int signo : {SIGHUP, SIGINT, SIGTERM}) {
        SyslogSocket syslog;
        std::ofstream("/etc/duskvale/pid") << "a longer text that must go\n";
        Daemon daemon({"ignored", "-f", "-p", "pid", "ignored too"}, "/etc/duskvale");
        ASSERT_TRUE(daemon.wrote(registered)) << daemon.stderr_text();
        EXPECT_EQ(file_text("/etc/duskvale/pid"), daemon.pid() + "\n") << "where it was started";
        kill(daemon.id(), signo);
        EXPECT_EQ(daemon.end(), 0);
        EXPECT_EQ(daemon.stderr_text(), starting + registered + stopped_by(signo));
        EXPECT_EQ(daemon.stdout_text(), "");
        EXPECT_FALSE(syslog.any());
    }
}

TEST(Foreground, EndsWithStatus1WithoutACoordinator) {
    std::ofstream("/etc/duskvale/no-coordinator") << "";
    Daemon daemon({"-f"});
    EXPECT_EQ(daemon.end(), 1);
    EXPECT_EQ(daemon.stderr_text(),
              starting + "ERR(run_mainloop):duskvale_corosync_new() failed\n" + removed);
    fs::remove("/etc/duskvale/no-coordinator");
}

TEST(Foreground, LogsToSyslogWhenAFacilityIsNamedInAnyCase) {
    SyslogSocket syslog;
    Daemon daemon({"-f", "-s", "LOCAL3"});
    const std::string name = "duskvale-corosync-bridge[" + daemon.pid();
    ASSERT_TRUE(syslog.got("<158>" + name + "]: " + registered)) << syslog.all();
    EXPECT_TRUE(syslog.got("<157>" + name + "-stderr]: redirected stderr")) << syslog.all();
    kill(daemon.id(), SIGTERM);
    EXPECT_EQ(daemon.end(), 0);
    EXPECT_TRUE(syslog.got("<158>" + name + "-stdout]: redirected stdout")) << syslog.all();
    EXPECT_EQ(daemon.stderr_text(), "");
}

TEST(Foreground, OutlivesItsLoggers) {
    SyslogSocket syslog;
    const std::string path = getenv("PATH");
    setenv("PATH", "/nonexistent", 1);
    Daemon daemon({"-f", "-s", "daemon"});
    setenv("PATH", path.c_str(), 1);
    EXPECT_TRUE(daemon.wrote("logger: not found")) << daemon.stderr_text();
    const std::string name = "<30>duskvale-corosync-bridge[" + daemon.pid();
    ASSERT_TRUE(syslog.got(name + "]: " + registered)) << syslog.all();
    kill(daemon.id(), SIGTERM); /* and now what standard output still holds is written */
    EXPECT_EQ(daemon.end(), 0);
}

TEST(Debug, NeedsTheMaskAndSevenTimesV) {
    const auto line = [](const std::string &tag, const char *category) {
        return "DBG(" + tag + "): duskvale_corosync_new: " + category + "\n";
    };
    const std::string one_to_five = line("CPG", "1") + line("CPG_GLIB", "2") + line("DBUS", "3") +
                                    line("LUMACRATES", "4") + line("DUSKVALE", "5");
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{"-f", "-d", "0x3e", "-vvvvvvv"}, one_to_five},
        {{"-f", "-d", "62", "-vvvv", "-vvv"}, one_to_five},
        {{"-f", "-d", "076", "-vvvvvvvv"}, one_to_five},
        {{"-f", "-d", "0x10000003e", "-vvvvvvv"}, one_to_five},
        {{"-f", "-d", "0x80000040", "-vvvvvvv"}, line("RUN", "6") + line("", "31")},
        {{"-f", "-d", "0x3e", "-vvvvvv"}, ""},
        {{"-f", "-d", "everything", "-vvvvvvv"}, ""},
        {{"-f", "-vvvvvvv"}, ""},
        {{"-f", "-d", "0xFF"}, ""},
    };
    for (const auto &[args, lines] : cases) {
        Daemon daemon(args);
        ASSERT_TRUE(daemon.wrote(registered)) << daemon.stderr_text();
        EXPECT_EQ(daemon.stderr_text(), starting + lines + registered);
    }
}

TEST(Background, LeavesAProcessInTheRootDirectoryThatLogsToLocal5) {
    SyslogSocket syslog;
    fs::remove("/etc/duskvale/pid");
    Daemon daemon({"-p", "etc/duskvale/pid"}, "/etc");
    EXPECT_EQ(daemon.end(), 0);
    EXPECT_EQ(daemon.stderr_text() + daemon.stdout_text(), "");

    const pid_t pid = pid_in("/etc/duskvale/pid");
    ASSERT_GT(pid, 0) << syslog.all();
    const std::string name = "<174>duskvale-corosync-bridge[" + std::to_string(pid);
    ASSERT_TRUE(syslog.got(name + "]: " + registered)) << syslog.all();
    EXPECT_EQ(fs::read_symlink("/proc/" + std::to_string(pid) + "/cwd"), "/");

    kill(pid, SIGTERM);
    EXPECT_EQ(end_of(pid), 0);
    EXPECT_TRUE(syslog.got(name + "]: INFO: Ending\n")) << syslog.all();
    EXPECT_TRUE(syslog.got(name + "-stdout]: redirected stdout")) << syslog.all();
    EXPECT_EQ(pid_in("/etc/duskvale/pid"), pid) << "the pid file stays";
}

TEST(PidFile, EndsTheProcessWhenItCannotBeOpened) {
    const std::pair<std::string, std::string> cases[] = {
        {"/etc/duskvale/no/such/dir", "No such file or directory"},
        {"/etc/duskvale", "Is a directory"},
    };
    for (const auto &[path, reason] : cases) {
        Daemon daemon({"-f", "-p", path});
        EXPECT_EQ(daemon.end(), 1);
        EXPECT_EQ(daemon.stderr_text(), path + ": " + reason + "\n");
    }
}

TEST(PidFile, ThatCannotBeWrittenIsReportedAndTheDaemonRuns) {
    Daemon daemon({"-f", "-p", "/dev/full"});
    EXPECT_TRUE(daemon.wrote("/dev/full: No space left on device\n" + starting + registered))
        << daemon.stderr_text();
}
