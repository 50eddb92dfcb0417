#include "keeper/config.h"
#include "keeper/edge/disk.h"
#include "keeper/edge/log.h"
#include "keeper/edge/programs.h"
#include "keeper/hold.h"
#include "keeper/object.h"
#include "keeper/paths.h"

#include "dbus/bus.h"
#include "support/file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/mount.h>
#include <sys/socket.h>

#include <filesystem>
#include <fstream>

using namespace keeper;
using testing::ElementsAre;
using testing::HasSubstr;
namespace fs = std::filesystem;

namespace {

/* An empty directory of the test's own; the sandbox throws it away. */
fs::path scratch(const char *name) {
    fs::path directory = fs::path("/mnt") / name;
    fs::remove_all(directory);
    fs::create_directories(directory);
    return directory;
}

void write(const fs::path &path, const std::string &text, fs::perms mode = fs::perms::owner_all) {
    std::ofstream(path) << text;
    fs::permissions(path, mode);
}

/* What one edge has delivered; edges live as long as the process. */
template <typename T>
struct Heard {
    std::vector<T> list;
    Deliver deliver = [this](const Input &input) { list.push_back(std::get<T>(input)); };
    bool wait(size_t count) {
        return loop_until([&] { return list.size() >= count; });
    }
};

/* ---- The configuration ---- */

std::vector<std::string> problems_of(const std::string &text) {
    const fs::path file = scratch("config") / "keeper.conf";
    write(file, text);
    return read_config(file).problems;
}

TEST(KeeperConfig, ReadsEachSetting) {
    const fs::path file = scratch("config") / "keeper.conf";
    write(file, "[keeper]\nstay=no\nquorum=yes\nstall=no\nstep-limit=90\n"
                "[watch]\ninterval=0.5\nlimit=10\nfailures=3\n");
    const ConfigRead read = read_config(file);
    EXPECT_THAT(read.problems, ElementsAre());
    EXPECT_FALSE(read.config.stay);
    EXPECT_EQ(read.config.quorum, Switch::on);
    EXPECT_FALSE(read.config.stall);
    EXPECT_EQ(read.config.step_limit, Duration(90'000));
    EXPECT_EQ(read.config.watch_interval, Duration(500));
    EXPECT_EQ(read.config.watch_limit, Duration(10'000));
    EXPECT_EQ(read.config.watch_failures, 3U);
}

TEST(KeeperConfig, HasTheDefaultsWithoutAFileAndInTheOneThatIsInstalled) {
    EXPECT_THAT(read_config("/nowhere").problems, ElementsAre());
    std::string text = file_text(fs::path(std::getenv("SOURCE_ROOT")) / "data/keeper.conf");
    EXPECT_THAT(problems_of(text), ElementsAre());
    /* Also with each line in force, so that none names a key that there is not. */
    for (size_t at = 0; (at = text.find("\n#", at)) != std::string::npos;) {
        text[at + 2] == ' ' ? at++ : (text.erase(at + 1, 1), 0);
    }
    EXPECT_THAT(problems_of(text), ElementsAre());
}

TEST(KeeperConfig, NamesEachMistake) {
    EXPECT_THAT(problems_of("[keeper]\nqorum=yes\nstay=maybe\n[watch]\nfailures=1.5\nlimit=0\n"),
                ElementsAre(HasSubstr("keeper.conf: [keeper] qorum=yes: is not a setting"),
                            HasSubstr("[keeper] stay=maybe: must be yes or no"),
                            HasSubstr("[watch] failures=1.5: must be a whole number"),
                            HasSubstr("[watch] limit=0: must be seconds")));
    EXPECT_THAT(problems_of("quorum=yes\n"), ElementsAre(HasSubstr("keeper.conf: ")));
}

/* ---- The disk ---- */

TEST(KeeperDisk, RemembersTheLastOfManyWrites) {
    const fs::path file = scratch("disk") / "state";
    Heard<DiskWritten> heard;
    Disk disk{file, heard.deliver};
    EXPECT_EQ(disk.read().stored, Stored{});
    EXPECT_EQ(disk.read().problem, "");
    const Stored last{"a=b\n[c] \\ \xc3\xa4", "watch", "true", "1\n", "-3\n a\n"};
    disk.write({"x", "start", "false"});
    disk.write({});
    disk.write(last);
    ASSERT_TRUE(heard.wait(2));
    EXPECT_EQ(heard.list.back().problem, "");
    EXPECT_EQ(disk.read().stored, last);
}

TEST(KeeperDisk, RepairsOnlyASettingThatTheDaemonDidNotWriteToItsEnd) {
    const fs::path file = scratch("settings") / "frozen_master";
    repair_setting(file.c_str(), "3\nold\n");
    EXPECT_FALSE(fs::exists(file)) << "it was removed";
    for (const auto &[found, remembered, repaired] :
         {std::tuple("", "3\nold\n", "3\nold\n"), std::tuple("oops\n", "3\n\n", "3\n\n"),
          std::tuple("-1\nnew\n", "3\nold\n", "-1\nnew\n"), std::tuple("", "", "")}) {
        write(file, found);
        repair_setting(file.c_str(), remembered);
        EXPECT_EQ(file_text(file), repaired);
    }
}

TEST(KeeperDisk, KeepsWhatItHadWhenTheDiskIsFull) {
    const fs::path directory = scratch("full");
    ASSERT_EQ(mount("test", directory.c_str(), "tmpfs", 0, "size=8k"), 0);
    Heard<DiskWritten> heard;
    Disk disk{directory / "state", heard.deliver};
    const Stored stored{.preferred = "true"};
    disk.write(stored);
    ASSERT_TRUE(heard.wait(1));
    EXPECT_EQ(heard.list.at(0).problem, "");
    std::ofstream(directory / "filler") << std::string(16384, 'x');
    disk.write({"x", "start"});
    ASSERT_TRUE(heard.wait(2));
    EXPECT_THAT(heard.list.at(1).problem, HasSubstr("No space left"));
    EXPECT_EQ(disk.read().stored, stored);
    umount(directory.c_str());
}

TEST(KeeperDisk, SaysWhyItCannotBeRead) {
    const fs::path file = scratch("disk") / "state";
    write(file, "no key file");
    const Disk disk{file, nullptr};
    EXPECT_THAT(disk.read().problem, HasSubstr(file.string()));
}

/* ---- The watch programs ---- */

struct KeeperPrograms : testing::Test {
    const fs::path directory = scratch("watch.d");
    Heard<WatchRan> heard;

    std::vector<std::string> run() {
        const size_t before = heard.list.size();
        run_programs(directory, Duration(1'500), heard.deliver);
        std::vector<std::string> words;
        if (heard.wait(before + 1)) {
            for (const WatchRan::Result &result : heard.list.back().results) {
                words.push_back(result.program + " " +
                                (result.ok        ? "works"
                                 : result.not_run ? "not run: " + result.reason
                                                  : result.reason));
            }
        }
        std::ranges::sort(words);
        return words;
    }
};

TEST_F(KeeperPrograms, TellsWhatEachOfThemFound) {
    EXPECT_THAT(run(), ElementsAre());
    write(directory / "a.watch", "#!/bin/sh\necho fine\n");
    write(directory / "b.watch", "#!/bin/sh\necho no answer >&2\necho more\nexit 3\n");
    write(directory / "c.watch", "#!/bin/sh\nkill -TERM $$\n");
    write(directory / "d.watch", "#!/bin/sh\nyes | head -c 3000000\nexit 1\n");
    write(directory / "e.watch", "#!/nowhere\n");
    write(directory / "f.watch", "#!/bin/sh\n", fs::perms::owner_read);
    write(directory / "g.sh", "#!/bin/sh\nexit 9\n");
    write(directory / "h.watch", "#!/bin/sh\nprintf '\\377'\nexit 4\n");
    EXPECT_THAT(run(), ElementsAre("a.watch works", "b.watch status 3: no answer",
                                   "c.watch killed by signal 15", "d.watch status 1: y",
                                   HasSubstr("e.watch not run: status 127: timeout: failed to run"),
                                   HasSubstr("f.watch not run: status 126: timeout: failed to run"),
                                   "h.watch status 4: \xef\xbf\xbd"));
}

/* Neither outlives its round: not the one that hangs, nor what another leaves behind. */
TEST_F(KeeperPrograms, EndsWhatAProgramStarted) {
    const std::string note = "#!/bin/sh\ntrap '' TERM INT HUP\n(trap '' TERM; exec sleep 1000) &\n"
                             "echo $! >" +
                             (directory / "child").string();
    write(directory / "a.watch", note + "-a\nsleep 1000\n");
    write(directory / "b.watch", note + "-b\nexit 0\n");
    EXPECT_THAT(run(), ElementsAre("a.watch not done after 1.5 s", "b.watch works"));
    for (const char *name : {"child-a", "child-b"}) {
        const pid_t child = std::stoi(file_text(directory / name));
        EXPECT_TRUE(loop_until([&] { return kill(child, 0) != 0; })) << name;
    }
}

/* ---- The log ---- */

TEST(KeeperLog, WaitsForNoJournalAndCountsWhatItDidNotTake) {
    std::array<int, 2> ends{};
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
    const int standard_error = dup(STDERR_FILENO);
    dup2(ends[0], STDERR_FILENO);
    setenv("JOURNAL_STREAM", "1:2", 1);
    const auto lines = [&] {
        std::string received(10'000'000, '\0');
        received.resize(static_cast<size_t>(
            std::max<ssize_t>(recv(ends[1], received.data(), received.size(), MSG_DONTWAIT), 0)));
        return received;
    };
    constexpr long many = 20'000; /* more than any socket takes */
    for (long line = 0; line < many; line++) {
        log_line(4, "two\nlines");
    }
    const std::string first = lines();
    const long taken = std::ranges::count(first, '\n');
    ASSERT_LT(taken, many);
    EXPECT_THAT(first, testing::StartsWith("<4>two lines\n<4>"));
    log_line(6, "back");
    EXPECT_EQ(lines(),
              "<4>the journal did not take " + std::to_string(many - taken) + " lines\n<6>back\n");
    unsetenv("JOURNAL_STREAM");
    dup2(standard_error, STDERR_FILENO);
}

/* ---- The object on the bus ---- */

TEST(KeeperObject, ShowsTheStateToAllAndObeysRoot) {
    Bus bus;
    std::vector<Input> asked;
    GDBusConnection *connection = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    Deliver deliver = [&](const Input &input) {
        asked.push_back(input);
        const auto &[what, call, target, on] = std::get<Asked>(input);
        answer_call(call, what != Asked::fit, what == Asked::fit ? "not now" : "done");
    };
    DuskvaleKeeper *object = export_object(connection, deliver);
    g_bus_own_name_on_connection(connection, DUSKVALE_KEEPER_BUS_NAME, G_BUS_NAME_OWNER_FLAGS_NONE,
                                 nullptr, nullptr, nullptr, nullptr);
    Client root(bus, 0, DUSKVALE_KEEPER_BUS_NAME, DUSKVALE_KEEPER_BUS_PATH);
    Client watcher(bus, nobody, DUSKVALE_KEEPER_BUS_NAME, DUSKVALE_KEEPER_BUS_PATH, adm);
    Client stranger(bus, nobody, DUSKVALE_KEEPER_BUS_NAME, DUSKVALE_KEEPER_BUS_PATH);
    EXPECT_EQ(stranger.get("Master"), "org.freedesktop.DBus.Error.AccessDenied");

    Known known;
    publish(object, known, {}, "");
    known.local = known.current.master_node = 3232235777;
    known.corosync.nodes = {{3232235777, "alpha\xff"}, {7, "beta"}};
    publish(object, known, {Level::critical, {"nobody serves"}}, "");
    EXPECT_THAT(watcher.signal(), testing::AllOf(HasSubstr("PropertiesChanged"),
                                                 HasSubstr("'Master': <uint32 3232235777>"),
                                                 HasSubstr("'Verdict': <'critical'>"),
                                                 testing::Not(HasSubstr("Frozen"))));
    EXPECT_THAT(watcher.get("Nodes"), HasSubstr("'Name': <'alpha\xef\xbf\xbd'>"));
    EXPECT_THAT(watcher.properties("GetAll"), HasSubstr("'Causes': <['nobody serves']>"));

    /* What changes every few seconds wakes nobody. */
    known.peers[7].heard = Time(5);
    publish(object, known, {Level::critical, {"nobody serves"}}, "");
    known.current.frozen_node = 1;
    publish(object, known, {Level::critical, {"nobody serves"}}, "");
    EXPECT_EQ(watcher.signal(), "PropertiesChanged('com.norvel.DuskvaleKeeper', {'Frozen': "
                                "<uint32 1>}, @as [])");
    EXPECT_EQ(watcher.get("LastHeard"), "(<{uint32 7: uint64 5000}>,)");

    for (const char *method : {"Move", "HandOver", "Fit", "Prefer"}) {
        EXPECT_EQ(watcher.method(method), "org.freedesktop.DBus.Error.AccessDenied");
    }
    EXPECT_EQ(watcher.set("Master", "1"), "org.freedesktop.DBus.Error.AccessDenied");
    EXPECT_THAT(asked, testing::IsEmpty());
    EXPECT_EQ(root.method("Move", "(uint32 7,)"), "('done',)");
    EXPECT_EQ(root.method("Prefer", "(true,)"), "('done',)");
    EXPECT_EQ(root.method("Fit"), "com.norvel.DuskvaleKeeper.Error.Refused");
    EXPECT_EQ(root.method("Move", "('beta',)"), "org.freedesktop.DBus.Error.InvalidArgs");
    ASSERT_EQ(asked.size(), 3U);
    EXPECT_EQ(std::get<Asked>(asked.at(0)).target, 7U);
    EXPECT_TRUE(std::get<Asked>(asked.at(1)).on);
}

} // namespace
