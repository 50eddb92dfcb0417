#include "keeper/edge/daemon.h"

#include "keeper/edge/log.h"

#include "base/paths.h"

namespace keeper {

constexpr const char *signals[] = {"NotifyNewMaster",  "NotifyFrozenMaster", "NotifyJoined",
                                   "NotifyLeft",       "NotifyGotMessage",   "NotifyRunstepBegin",
                                   "NotifyRunstepEnd", "NotifyRunstepsDone"};

static void tell(gpointer told, const Input &input) {
    (*static_cast<Told *>(told))(input);
}

static void on_signal(GDBusConnection *, const gchar *, const gchar *, const gchar *,
                      const gchar *name, GVariant *arguments, gpointer told) noexcept {
    if (const auto read = client::read_announcement(name, arguments)) {
        tell(told, input_of(*read));
    }
}

static void on_appeared(GDBusConnection *, const gchar *, const gchar *, gpointer told) noexcept {
    tell(told, DaemonAppeared{});
}

static void on_vanished(GDBusConnection *, const gchar *, gpointer told) noexcept {
    tell(told, DaemonVanished{});
}

void follow_daemon(GDBusConnection *bus, Told &told) {
    for (const char *signal : signals) {
        g_dbus_connection_signal_subscribe(bus, DUSKVALE_BUS_NAME, DUSKVALE_BUS_INTERFACE, signal,
                                           DUSKVALE_BUS_PATH, nullptr, G_DBUS_SIGNAL_FLAGS_NONE,
                                           on_signal, &told, nullptr);
    }
    g_bus_watch_name_on_connection(bus, DUSKVALE_BUS_NAME, G_BUS_NAME_WATCHER_FLAGS_NONE,
                                   on_appeared, on_vanished, &told, nullptr);
}

void read_daemon(GDBusConnection *bus, Told &told) {
    call(bus, DUSKVALE_BUS_NAME, DUSKVALE_BUS_PATH, client::get_all(), [&told](const Reply &reply) {
        std::string fault = reply.error;
        const auto snapshot = reply.arguments != nullptr
                                  ? client::read_snapshot(reply.arguments, &fault)
                                  : std::nullopt;
        snapshot ? told(*snapshot)
                 : log_line(LOG_WARNING, "the daemon's state could not be read: " + fault);
    });
}

void call_daemon(GDBusConnection *bus, const client::Call &asked) {
    call(bus, DUSKVALE_BUS_NAME, DUSKVALE_BUS_PATH, asked, [](const Reply &reply) {
        if (reply.arguments == nullptr || client::read_status(reply.arguments) == false) {
            log_line(LOG_WARNING, "the daemon refused a call: " + reply.error);
        }
    });
}

} // namespace keeper
