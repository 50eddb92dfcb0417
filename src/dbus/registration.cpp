#include "base/paths.h"
#include "dbus/private.h"

#include <dbus/dbus-glib-lowlevel.h>

#include <cstdlib>
#include <memory>

namespace {

struct Unref {
    void operator()(DBusGProxy *proxy) const { g_object_unref(proxy); }
};
using Proxy = std::unique_ptr<DBusGProxy, Unref>;

constexpr guint no_request_flags = 0;

DBusGProxy *bus_driver(DBusGConnection *connection) {
    return dbus_g_proxy_new_for_name(connection, DBUS_SERVICE_DBUS, DBUS_PATH_DBUS,
                                     DBUS_INTERFACE_DBUS);
}

/* Left alone, libdbus would end the process without a word. A daemon that nobody can ask or command
   is of no use, and a lost connection cannot be taken up again: its service manager restarts it. */
DBusHandlerResult end_when_disconnected(DBusConnection * /*connection*/, DBusMessage *message,
                                        void * /*user_data*/) noexcept {
    if (!dbus_message_is_signal(message, DBUS_INTERFACE_LOCAL, "Disconnected")) {
        return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    }
    DUSKVALE_ERR("Lost the connection to the system bus, ending with status %d\n", EXIT_FAILURE);
    exit(EXIT_FAILURE);
}

/* The filter refers to no object, so it may stay for the life of the connection. */
void watch_disconnect(DBusGConnection *connection) {
    DBusConnection *raw = dbus_g_connection_get_connection(connection);
    dbus_connection_set_exit_on_disconnect(raw, FALSE);
    if (!dbus_connection_add_filter(raw, end_when_disconnected, nullptr, nullptr)) {
        g_error("Out of memory");
    }
}

gboolean duskvale_acquire_name(DBusGConnection *connection) {
    const Proxy bus_proxy(bus_driver(connection));
    if (!bus_proxy) {
        g_critical("Could not construct bus_proxy object; bailing out");
        return FALSE;
    }
    DBUS_DBG("Trying to aquire '%s'\n", DUSKVALE_BUS_NAME);
    g_autoptr(GError) error = nullptr;
    guint reply = 0;
    if (!dbus_g_proxy_call(bus_proxy.get(), "RequestName", &error, G_TYPE_STRING, DUSKVALE_BUS_NAME,
                           G_TYPE_UINT, no_request_flags, G_TYPE_INVALID, G_TYPE_UINT, &reply,
                           G_TYPE_INVALID)) {
        g_critical("Failed to acquire %s: %s", DUSKVALE_BUS_NAME, error->message);
        return FALSE;
    }
    if (reply != DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER) {
        g_critical("Failed to acquire %s", DUSKVALE_BUS_NAME);
        return FALSE;
    }
    return TRUE;
}

} // namespace

gboolean duskvale_dbus_register(DuskvaleDBus *self) {
    DuskvaleDBusPrivate *priv = self->priv;
    DBUS_DBG("\n");
    g_autoptr(GError) error = nullptr;
    priv->connection = dbus_g_bus_get(DBUS_BUS_SYSTEM, &error);
    if (priv->connection == nullptr) {
        if (error != nullptr) {
            g_critical("error getting system bus: %s", error->message);
        }
        g_critical("No connection established");
        return FALSE;
    }
    DBUS_DBG("Got connection\n");
    watch_disconnect(priv->connection);
    priv->bus_proxy = bus_driver(priv->connection);
    DBUS_DBG("Got proxy\n");
    dbus_g_connection_register_g_object(priv->connection, DUSKVALE_BUS_PATH, G_OBJECT(self));
    if (!duskvale_acquire_name(priv->connection)) {
        g_critical("Failed to acquire name for connection");
        return FALSE;
    }
    DBUS_DBG("Registered our object\n");
    return TRUE;
}
