#include "dbus/fixture.h"
#include "support/child.h"

#include <gmock/gmock.h>

namespace {

constexpr uid_t nobody = 65534;

/* A daemon of its own process: registers, and goes on until it is ended. */
Child daemon_of(uid_t user) {
    return Child([user] {
        DuskvaleDBus *dbus = duskvale_dbus_new(7, nullptr, nullptr);
        if (setresuid(user, user, user) != 0 || !duskvale_dbus_register(dbus)) {
            _exit(3);
        }
        fputs("registered\n", stderr);
        g_main_loop_run(g_main_loop_new(nullptr, FALSE));
    });
}

void expect_failure(uid_t user, std::initializer_list<const char *> lines) {
    Child daemon = daemon_of(user);
    EXPECT_EQ(daemon.end(), 3);
    for (const char *line : lines) {
        EXPECT_THAT(daemon.stderr_text(), testing::HasSubstr(line));
    }
}

} // namespace

/* GoogleTest runs this suite first, before this process itself has used libdbus, whose state a copy
   of the process could not get rid of. */
TEST(RegistrationDeathTest, FailsWithoutABusOrTheNameAndTheDaemonEndsWithItsBus) {
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent", 1);
    expect_failure(0, {"CRITICAL", "error getting system bus: Failed to connect",
                       "No connection established"});
    Bus bus;
    expect_failure(nobody, {"Failed to acquire com.norvel.DuskvaleCorosync: Connection \":1.0\" is "
                            "not allowed to own",
                            "Failed to acquire name for connection"});
    Child first = daemon_of(0);
    ASSERT_TRUE(first.wrote("registered\n"));
    expect_failure(0, {"Failed to acquire com.norvel.DuskvaleCorosync\n",
                       "Failed to acquire name for connection"});
    bus.stop();
    EXPECT_EQ(first.end(), 1);
    EXPECT_THAT(first.stderr_text(),
                testing::EndsWith("ERR(end_when_disconnected):Lost the connection to the system "
                                  "bus, ending with status 1\n"));
}

TEST_F(DBusTest, EverybodyMayLookAndOnlyRootMayCommand) {
    const std::string denied = "org.freedesktop.DBus.Error.AccessDenied";
    std::vector<Request> commands(requests.begin(), requests.end());
    commands.push_back({nullptr, "TakeOver", "()", ""});
    commands.push_back({nullptr, "Set", set_preferred.arguments, ""});
    start();
    duskvale_notify_joined(dbus, 2, 2);
    Client stranger(bus(), nobody);
    const std::string owner = client.driver("GetNameOwner", "('com.norvel.DuskvaleCorosync',)");
    const std::string unique_name = owner.substr(2, owner.size() - 5);
    for (const std::string &name : {std::string(DUSKVALE_BUS_NAME), unique_name}) {
        for (const auto &[interface, member, arguments, reply] :
             {Request{"org.freedesktop.DBus.Introspectable", "Introspect", "()", ""},
              Request{"org.freedesktop.DBus.Peer", "Ping", "()", ""},
              Request{set_preferred.interface, "Get", "('com.norvel.DuskvaleCorosync', 'IsMaster')",
                      ""},
              Request{set_preferred.interface, "GetAll", "('com.norvel.DuskvaleCorosync',)", ""}}) {
            EXPECT_EQ(stranger.call(interface, member, arguments, name).front(), '(') << member;
        }
        asked();
        for (const auto &[interface, member, arguments, reply] : commands) {
            EXPECT_EQ(stranger.call(interface, member, arguments, name), denied) << member;
            EXPECT_EQ(asked(), "");
            EXPECT_EQ(client.call(interface, member, arguments, name).front(), '(') << member;
            EXPECT_NE(asked(), "") << member;
        }
    }
    EXPECT_EQ(stranger.driver("RequestName", "('com.norvel.DuskvaleCorosync', uint32 0)"), denied);
    duskvale_notify_keep_alive(dbus, 2);
    EXPECT_EQ(stranger.signal(), "NotifyKeepAlive(uint32 2,)");
}
