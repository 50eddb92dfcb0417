#include "keeper/edge/daemon.h"

#include "keeper/edge/log.h"

#include "base/paths.h"

#include <utility>

namespace keeper {

constexpr const char *signals[] = {"NotifyNewMaster",  "NotifyFrozenMaster", "NotifyJoined",
                                   "NotifyLeft",       "NotifyGotMessage",   "NotifyRunstepBegin",
                                   "NotifyRunstepEnd", "NotifyRunstepsDone"};

Daemon::Daemon(GDBusConnection *bus_, Told told_) : bus(bus_), told(std::move(told_)) {
    const auto on_signal = [](GDBusConnection *, const gchar *, const gchar *, const gchar *,
                              const gchar *name, GVariant *arguments, gpointer self) noexcept {
        if (const auto read = client::read_announcement(name, arguments)) {
            std::visit([self](const auto &news) { static_cast<Daemon *>(self)->told(news); },
                       *read);
        }
    };
    const auto on_appeared = [](GDBusConnection *, const gchar *, const gchar *,
                                gpointer self) noexcept {
        auto *daemon = static_cast<Daemon *>(self);
        daemon->told(DaemonAppeared{.ran_before = !std::exchange(daemon->name_was_seen, true)});
    };
    const auto on_vanished = [](GDBusConnection *, const gchar *, gpointer self) noexcept {
        static_cast<Daemon *>(self)->name_was_seen = true;
        static_cast<Daemon *>(self)->told(DaemonVanished{});
    };
    for (const char *signal : signals) {
        g_dbus_connection_signal_subscribe(bus, DUSKVALE_BUS_NAME, DUSKVALE_BUS_INTERFACE, signal,
                                           DUSKVALE_BUS_PATH, nullptr, G_DBUS_SIGNAL_FLAGS_NONE,
                                           on_signal, this, nullptr);
    }
    g_bus_watch_name_on_connection(bus, DUSKVALE_BUS_NAME, G_BUS_NAME_WATCHER_FLAGS_NONE,
                                   on_appeared, on_vanished, this, nullptr);
}

void Daemon::read_snapshot() {
    call(bus, DUSKVALE_BUS_NAME, DUSKVALE_BUS_PATH, client::get_all(), [this](const Reply &reply) {
        std::string fault = reply.error;
        const auto snapshot = reply.arguments != nullptr
                                  ? client::read_snapshot(reply.arguments, &fault)
                                  : std::nullopt;
        if (snapshot) {
            told(*snapshot);
        } else {
            log_line(LOG_WARNING, "the daemon's state could not be read: " + fault);
        }
    });
}

void Daemon::send(const client::Call &asked) const {
    call(bus, DUSKVALE_BUS_NAME, DUSKVALE_BUS_PATH, asked, [](const Reply &reply) {
        if (reply.arguments == nullptr || client::read_status(reply.arguments) == false) {
            log_line(LOG_WARNING, "the daemon refused a call: " + reply.error);
        }
    });
}

} // namespace keeper
