#include "keeper/edge/systemd.h"

#include "keeper/edge/log.h"

#include <syslog.h>
#include <systemd/sd-bus.h>

#include <csignal>
#include <cstdlib>

namespace keeper {

namespace {

constexpr const char *systemd_name = "org.freedesktop.systemd1";
constexpr const char *systemd_path = "/org/freedesktop/systemd1";
constexpr const char *manager = "org.freedesktop.systemd1.Manager";
constexpr const char *service = "org.freedesktop.systemd1.Service";
constexpr const char *properties = "org.freedesktop.DBus.Properties";

client::Call get_all_of_service() {
    return {properties, "GetAll", client::owned(g_variant_new("(s)", service))};
}

template <typename T>
T value(GVariantDict *dict, const char *key, const char *type) {
    T found{};
    g_variant_dict_lookup(dict, key, type, &found);
    return found;
}

/* The commands of ExecStopPost, each with its last run since the unit was started. */
UnitChanged::StopSteps read_stop_steps(GVariant *commands) {
    using enum UnitChanged::StopSteps;
    UnitChanged::StopSteps worst = none;
    GVariantIter iter;
    g_variant_iter_init(&iter, commands);
    guint64 began_at = 0;
    guint64 ended_at = 0;
    gint32 code = 0;
    gint32 status = 0;
    while (g_variant_iter_next(&iter, "(sasbttttuii)", nullptr, nullptr, nullptr, nullptr,
                               &began_at, nullptr, &ended_at, nullptr, &code, &status)) {
        if (began_at > ended_at) {
            return running;
        }
        if (began_at != 0 && worst != failed) {
            worst = code == CLD_EXITED && status == 0 ? done : failed;
        }
    }
    return worst;
}

UnitChanged read_unit(GVariant *reply) {
    const client::Variant all(g_variant_get_child_value(reply, 0));
    GVariantDict dict;
    g_variant_dict_init(&dict, all.get());
    UnitChanged read;
    read.main_pid = value<guint32>(&dict, "MainPID", "u");
    read.running = read.main_pid != 0;
    const auto code = value<gint32>(&dict, "ExecMainCode", "i");
    read.aborted = (code == CLD_KILLED || code == CLD_DUMPED) &&
                   value<gint32>(&dict, "ExecMainStatus", "i") == SIGABRT;
    const client::Variant commands(
        g_variant_dict_lookup_value(&dict, "ExecStopPost", G_VARIANT_TYPE("a(sasbttttuii)")));
    if (commands != nullptr && !read.running) {
        read.stop_steps = read_stop_steps(commands.get());
    }
    g_variant_dict_clear(&dict);
    return read;
}

} // namespace

Unit::Unit(GDBusConnection *bus_, const char *name_, Told told_)
    : bus(bus_), name(name_), told(std::move(told_)) {
    char *encoded = nullptr;
    sd_bus_path_encode("/org/freedesktop/systemd1/unit", name, &encoded);
    path = encoded;
    free(encoded);
    g_dbus_connection_signal_subscribe(bus, systemd_name, properties, "PropertiesChanged",
                                       path.c_str(), service, G_DBUS_SIGNAL_FLAGS_NONE, on_changed,
                                       this, nullptr);
    /* Until somebody asks, systemd announces nothing. */
    call(bus, systemd_name, systemd_path, {manager, "Subscribe", nullptr});
    read();
}

void Unit::on_changed(GDBusConnection *, const gchar *, const gchar *, const gchar *, const gchar *,
                      GVariant *, gpointer self) noexcept {
    static_cast<Unit *>(self)->read();
}

/* The signal lacks what ExecStopPost has become, so all is read again. */
void Unit::read() {
    call(bus, systemd_name, path.c_str(), get_all_of_service(), [this](const Reply &reply) {
        if (reply.arguments == nullptr) {
            log_line(LOG_ERR, std::string("systemd says nothing of ") + name + ": " + reply.error);
            return;
        }
        const UnitChanged read = read_unit(reply.arguments);
        if (last != read) {
            last = read;
            told(read);
        }
    });
}

void Unit::kill(uint32_t main_pid) {
    if (!last || last->main_pid != main_pid) {
        return;
    }
    call(bus, systemd_name, systemd_path,
         {manager, "KillUnit", client::owned(g_variant_new("(ssi)", name, "main", SIGKILL))},
         [this](const Reply &reply) {
             if (reply.arguments == nullptr) {
                 log_line(LOG_ERR, std::string("systemd does not end the main process of ") + name +
                                       ": " + reply.error);
             }
         });
}

} // namespace keeper
