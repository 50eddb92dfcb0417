/* The daemon as a process, with a coordinator that does nothing. */
#include "support/child.h"
#include "support/script.h"
#include "support/syslog-socket.h"

#include <csignal>
#include <cstdlib>
#include <optional>

namespace {

namespace fs = std::filesystem;

const std::string registered = "INFO: Registered on dbus\n";

/* The daemon, called as "bridge", in `directory`. */
struct Daemon : Child {
    explicit Daemon(Words args, const char *directory = "/tmp")
        : Child([&] {
              args.insert(args.begin(), "bridge");
              fs::current_path(directory);
              become(DAEMON, args);
          }) {}

    std::string pid() const { return std::to_string(id()); }
};

struct Session {
    void start() { daemon.emplace(Words{w.begin() + 1, w.end()}, "/etc/duskvale"); }
    std::string outcome() {
        EXPECT_FALSE(syslog.any());
        std::string text = std::exchange(shown, {});
        if (daemon) {
            text += daemon->stderr_text() + daemon->stdout_text();
        }
        return text + (text.empty() || text.back() == '\n' ? "" : "\n");
    }

    SyslogSocket syslog;
    std::optional<Daemon> daemon;
    Words w;
    std::string shown;

    const Commands commands = {
        /* Until it has come up, until it ends, until it was stopped by a signal. */
        {"start",
         [this] {
             start();
             EXPECT_TRUE(daemon->wrote(registered)) << daemon->stderr_text();
         }},
        {"run",
         [this] {
             start();
             shown += "status " + std::to_string(daemon->end()) + "\n";
         }},
        {"stop",
         [this] {
             kill(daemon->id(), std::stoi(w[1]));
             shown += "status " + std::to_string(daemon->end()) + "\n";
         }},
        {"write", [this] { std::ofstream("/etc/duskvale/" + w[1]) << rest(w, 2); }},
        {"rm", [this] { fs::remove("/etc/duskvale/" + w[1]); }},
        {"pid-file",
         [this] {
             const bool own = file_text("/etc/duskvale/" + w[1]) == daemon->pid() + "\n";
             shown += own ? "its own pid\n" : "something else\n";
         }},
    };
};

/* The pid in `path`, once the daemon wrote it whole; -1 if it never did. */
pid_t pid_in(const char *path) {
    return loop_until([&] { return file_text(path).ends_with('\n'); }) ? std::stoi(file_text(path))
                                                                       : -1;
}

} // namespace

TEST(Daemon, StartsAndEndsAsItDid) {
    expect_script<Session>("process");
}

TEST(Daemon, LogsToSyslogWhenAFacilityIsNamedInAnyCase) {
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

TEST(Daemon, OutlivesItsLoggers) {
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

TEST(Daemon, InTheBackgroundLeavesAProcessInTheRootDirectoryThatLogsToLocal5) {
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
