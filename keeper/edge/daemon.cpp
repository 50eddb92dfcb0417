#include "keeper/edge/daemon.h"

#include "keeper/edge/log.h"

#include "base/paths.h"

namespace keeper {

constexpr const char *signals[] = {"NotifyNewMaster",  "NotifyFrozenMaster", "NotifyJoined",
                                   "NotifyLeft",       "NotifyGotMessage",   "NotifyRunstepBegin",
                                   "NotifyRunstepEnd", "NotifyRunstepsDone"};

static void pass_on(gpointer deliver, const Input &input) {
    (*static_cast<Deliver *>(deliver))(input);
}

static void on_signal(GDBusConnection *, const gchar *, const gchar *, const gchar *,
                      const gchar *name, GVariant *arguments, gpointer deliver) noexcept {
    if (const auto read = client::read_announcement(name, arguments)) {
        pass_on(deliver, input_of(*read));
    }
}

static void on_appeared(GDBusConnection *, const gchar *, const gchar *,
                        gpointer deliver) noexcept {
    pass_on(deliver, DaemonAppeared{});
}

static void on_vanished(GDBusConnection *, const gchar *, gpointer deliver) noexcept {
    pass_on(deliver, DaemonVanished{});
}

void follow_daemon(GDBusConnection *bus, Deliver &deliver) {
    for (const char *signal : signals) {
        g_dbus_connection_signal_subscribe(bus, DUSKVALE_BUS_NAME, DUSKVALE_BUS_INTERFACE, signal,
                                           DUSKVALE_BUS_PATH, nullptr, G_DBUS_SIGNAL_FLAGS_NONE,
                                           on_signal, &deliver, nullptr);
    }
    g_bus_watch_name_on_connection(bus, DUSKVALE_BUS_NAME, G_BUS_NAME_WATCHER_FLAGS_NONE,
                                   on_appeared, on_vanished, &deliver, nullptr);
}

void read_daemon(GDBusConnection *bus, Deliver &deliver) {
    call(bus, DUSKVALE_BUS_NAME, DUSKVALE_BUS_PATH, client::get_all(DUSKVALE_BUS_INTERFACE),
         [&deliver](const Reply &reply) {
             std::string fault = reply.error;
             const auto snapshot = reply.arguments != nullptr
                                       ? client::read_snapshot(reply.arguments, &fault)
                                       : std::nullopt;
             snapshot ? deliver(*snapshot)
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
