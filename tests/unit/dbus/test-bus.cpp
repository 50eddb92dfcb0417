#include "dbus/fixture.h"
#include "support/child.h"

namespace {

/* A daemon of its own process: registers, and goes on until it is ended. */
void serve() {
    DuskvaleDBus *dbus = duskvale_dbus_new(7, nullptr, nullptr);
    if (!duskvale_dbus_register(dbus)) {
        _exit(3);
    }
    fputs("registered\n", stderr);
    g_main_loop_run(g_main_loop_new(nullptr, FALSE));
}

bool has(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

} // namespace

/* GoogleTest runs these suites first, before this process itself has used libdbus, whose state a
   copy of the process could not get rid of. */
TEST(RegistrationDeathTest, FailsWithoutABus) {
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent", 1);
    Child daemon(serve);
    EXPECT_EQ(daemon.end(), 3);
    EXPECT_TRUE(has(daemon.stderr_text(), "CRITICAL")) << daemon.stderr_text();
    EXPECT_TRUE(has(daemon.stderr_text(), "error getting system bus: Failed to connect"));
    EXPECT_TRUE(has(daemon.stderr_text(), "No connection established"));
}

TEST(RegistrationDeathTest, IsDeniedToAllButRoot) {
    const Bus bus;
    Child daemon([] {
        if (setresuid(65534, 65534, 65534) == 0) {
            serve();
        }
    });
    EXPECT_EQ(daemon.end(), 3);
    EXPECT_TRUE(has(daemon.stderr_text(),
                    "Failed to acquire com.norvel.DuskvaleCorosync: Connection \":1.0\" is not "
                    "allowed to own"))
        << daemon.stderr_text();
    EXPECT_TRUE(has(daemon.stderr_text(), "Failed to acquire name for connection"));
}

TEST(RegistrationDeathTest, IsDeniedToASecondDaemon) {
    const Bus bus;
    Child first(serve);
    ASSERT_TRUE(first.wrote("registered\n"));
    Child second(serve);
    EXPECT_EQ(second.end(), 3);
    EXPECT_TRUE(has(second.stderr_text(), "Failed to acquire com.norvel.DuskvaleCorosync\n"))
        << second.stderr_text();
    EXPECT_TRUE(has(second.stderr_text(), "Failed to acquire name for connection"));
}

TEST(RegistrationDeathTest, EndsTheProcessWithALogLineWhenTheBusGoes) {
    Bus bus;
    Child daemon(serve);
    ASSERT_TRUE(daemon.wrote("registered\n"));
    bus.stop();
    EXPECT_EQ(daemon.end(), 1);
    EXPECT_TRUE(has(daemon.stderr_text(),
                    "ERR(end_when_disconnected):Lost the connection to the system bus, ending with "
                    "status 1\n"));
}

TEST_F(DBusTest, EverybodyMayLookAndOnlyRootMayCommand) {
    const char *const properties = "org.freedesktop.DBus.Properties";
    const char *const denied = "org.freedesktop.DBus.Error.AccessDenied";
    struct {
        const char *interface;
        const char *member;
        const char *arguments;
    } const allowed[] =
        {
            {"org.freedesktop.DBus.Introspectable", "Introspect", "()"},
            {properties, "Get", "('com.norvel.DuskvaleCorosync', 'Version')"},
            {properties, "GetAll", "('com.norvel.DuskvaleCorosync',)"},
            {"org.freedesktop.DBus.Peer", "Ping", "()"},
        },
            refused[] = {
                {DUSKVALE_BUS_NAME, "SendMessage", "('x',)"},
                {DUSKVALE_BUS_NAME, "KeepAlive", "()"},
                {DUSKVALE_BUS_NAME, "TakeOver", "()"},
                {DUSKVALE_BUS_NAME, "GiveBack", "()"},
                {DUSKVALE_BUS_NAME, "SetFreeze", "(true, 'x')"},
                {DUSKVALE_BUS_NAME, "LumacrateHotplug", "(true, '', '', '')"},
                {properties, "Set", "('com.norvel.DuskvaleCorosync', 'PreferredMaster', <true>)"},
                {nullptr, "TakeOver", "()"},
                {nullptr, "Set", "('com.norvel.DuskvaleCorosync', 'PreferredMaster', <true>)"},
            };
    start();
    duskvale_notify_joined(dbus, 2, 2);
    Client stranger(bus(), 65534);
    const std::string owner = client.driver("GetNameOwner", "('com.norvel.DuskvaleCorosync',)");
    const std::string unique_name = owner.substr(2, owner.size() - 5);
    for (const std::string &name : {std::string(DUSKVALE_BUS_NAME), unique_name}) {
        for (const auto &[interface, member, arguments] : allowed) {
            EXPECT_EQ(stranger.call(interface, member, arguments, name).front(), '(') << member;
        }
        asked();
        for (const auto &[interface, member, arguments] : refused) {
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
