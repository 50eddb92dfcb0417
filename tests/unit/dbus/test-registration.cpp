/* Starts that fail, each in a process of its own. */
#include "dbus/bus.h"
#include "dbus/duskvale-dbus.h"

#include <gmock/gmock.h>

namespace {

/* A daemon of its own process: registers, and goes on until it is ended. */
Child daemon_of(uid_t user) {
    return Child([user] {
        g_log_set_always_fatal(static_cast<GLogLevelFlags>(
            G_LOG_FATAL_MASK)); /* critical messages are what is expected here */
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
