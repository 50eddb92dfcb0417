#include "keeper/edge/systemd.h"

#include "keeper/edge/log.h"
#include "keeper/paths.h"

#include <csignal>

namespace keeper {

constexpr const char *systemd = "org.freedesktop.systemd1";
constexpr const char *manager_path = "/org/freedesktop/systemd1";
constexpr const char *unit_path = "/org/freedesktop/systemd1/unit/" DUSKVALE_DAEMON_UNIT_ON_BUS;
constexpr const char *manager = "org.freedesktop.systemd1.Manager";
constexpr const char *service = "org.freedesktop.systemd1.Service";
constexpr const char *properties = "org.freedesktop.DBus.Properties";

/* The commands of ExecStopPost, each with its last run since the unit was started. */
static Phase read_stop_steps(GVariant *commands) {
    Phase worst = Phase::none;
    GVariantIter iter;
    g_variant_iter_init(&iter, commands);
    guint64 began_at = 0, ended_at = 0;
    gint32 code = 0, status = 0;
    while (g_variant_iter_next(&iter, "(sasbttttuii)", nullptr, nullptr, nullptr, nullptr,
                               &began_at, nullptr, &ended_at, nullptr, &code, &status)) {
        if (began_at > ended_at) {
            return Phase::stopping;
        }
        if (began_at != 0 && worst != Phase::stop_failed) {
            worst = code == CLD_EXITED && status == 0 ? Phase::stopped : Phase::stop_failed;
        }
    }
    return worst;
}

static UnitChanged read_unit(GVariant *reply) {
    const client::Variant all(g_variant_get_child_value(reply, 0));
    UnitChanged read;
    gint32 code = 0, status = 0;
    g_variant_lookup(all.get(), "MainPID", "u", &read.main_pid);
    g_variant_lookup(all.get(), "ExecMainCode", "i", &code);
    g_variant_lookup(all.get(), "ExecMainStatus", "i", &status);
    read.aborted = (code == CLD_KILLED || code == CLD_DUMPED) && status == SIGABRT;
    const client::Variant commands(
        g_variant_lookup_value(all.get(), "ExecStopPost", G_VARIANT_TYPE("a(sasbttttuii)")));
    if (commands != nullptr && read.main_pid == 0) {
        read.stop_steps = read_stop_steps(commands.get());
    }
    return read;
}

/* The signal of a change lacks what ExecStopPost has become, so all is read each time. */
static void read(GDBusConnection *bus, Deliver &deliver) {
    call(bus, systemd, unit_path,
         {properties, "GetAll", client::owned(g_variant_new("(s)", service))},
         [&deliver](const Reply &reply) {
             reply.arguments != nullptr
                 ? deliver(read_unit(reply.arguments))
                 : log_line(LOG_ERR, "systemd says nothing of the daemon's unit: " + reply.error);
         });
}

static void on_changed(GDBusConnection *bus, const gchar *, const gchar *, const gchar *,
                       const gchar *, GVariant *, gpointer deliver) noexcept {
    read(bus, *static_cast<Deliver *>(deliver));
}

void follow_unit(GDBusConnection *bus, Deliver &deliver) {
    g_dbus_connection_signal_subscribe(bus, systemd, properties, "PropertiesChanged", unit_path,
                                       service, G_DBUS_SIGNAL_FLAGS_NONE, on_changed, &deliver,
                                       nullptr);
    /* Until somebody asks, systemd announces nothing. */
    call(bus, systemd, manager_path, {manager, "Subscribe", nullptr});
    read(bus, deliver);
}

void kill_unit(GDBusConnection *bus) {
    call(bus, systemd, manager_path,
         {manager, "KillUnit",
          client::owned(g_variant_new("(ssi)", DUSKVALE_DAEMON_UNIT, "main", SIGKILL))},
         [](const Reply &reply) {
             if (reply.arguments == nullptr) {
                 log_line(LOG_ERR, "systemd does not end the daemon: " + reply.error);
             }
         });
}

} // namespace keeper
