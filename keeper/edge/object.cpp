#include "keeper/edge/object.h"

#include "keeper/edge/interface.h"
#include "keeper/paths.h"

#include "base/utf8.h"

namespace keeper {

constexpr const char *refused = DUSKVALE_KEEPER_BUS_NAME ".Error.Refused";
/* Changes with every text of another keeper; who wants it reads it. */
constexpr const char *not_announced = "LastHeard";
static const std::map<std::string, Asked::What> methods = {{"Move", Asked::move},
                                                           {"HandOver", Asked::hand_over},
                                                           {"Fit", Asked::fit},
                                                           {"Prefer", Asked::prefer}};

Object::Object(GDBusConnection *bus_, Deliver deliver_) : bus(bus_), deliver(std::move(deliver_)) {
    g_autoptr(GDBusNodeInfo) node = g_dbus_node_info_new_for_xml(keeper_interface_xml, nullptr);
    static const GDBusInterfaceVTable table{on_method, on_read, nullptr, {}};
    g_dbus_connection_register_object(bus, DUSKVALE_KEEPER_BUS_PATH, node->interfaces[0], &table,
                                      this, nullptr, nullptr);
}

void Object::on_method(GDBusConnection *, const gchar *, const gchar *, const gchar *,
                       const gchar *method, GVariant *arguments, GDBusMethodInvocation *invocation,
                       gpointer self) noexcept {
    auto *object = static_cast<Object *>(self);
    Asked asked{.what = methods.at(method), .call = invocation};
    if (asked.what == Asked::move) {
        g_variant_get(arguments, "(u)", &asked.target);
    } else if (asked.what == Asked::prefer) {
        gboolean on = FALSE;
        g_variant_get(arguments, "(b)", &on);
        asked.on = on != FALSE;
    }
    object->deliver(asked);
}

void Object::answer(void *call, bool ok, const std::string &text) {
    auto *invocation = static_cast<GDBusMethodInvocation *>(call);
    const std::string said = duskvale_utf8(text.c_str());
    if (ok) {
        g_dbus_method_invocation_return_value(invocation, g_variant_new("(s)", said.c_str()));
    } else {
        g_dbus_method_invocation_return_dbus_error(invocation, refused, said.c_str());
    }
}

GVariant *Object::on_read(GDBusConnection *, const gchar *, const gchar *, const gchar *,
                          const gchar *property, GError **, gpointer self) noexcept {
    return g_variant_ref(static_cast<Object *>(self)->properties.at(property).get());
}

void Object::publish(Properties news) {
    GVariantBuilder changed;
    g_variant_builder_init(&changed, G_VARIANT_TYPE_VARDICT);
    bool any = false;
    for (const auto &[name, value] : news) {
        const auto before = properties.find(name);
        if (name != not_announced && before != properties.end() &&
            g_variant_equal(before->second.get(), value.get()) == FALSE) {
            g_variant_builder_add(&changed, "{sv}", name.c_str(), value.get());
            any = true;
        }
    }
    properties = std::move(news);
    const client::Variant body =
        client::owned(g_variant_new("(sa{sv}as)", DUSKVALE_KEEPER_BUS_NAME, &changed, nullptr));
    if (any) {
        g_dbus_connection_emit_signal(bus, nullptr, DUSKVALE_KEEPER_BUS_PATH,
                                      "org.freedesktop.DBus.Properties", "PropertiesChanged",
                                      body.get(), nullptr);
    }
}

void Object::announce(const std::string &line) {
    g_dbus_connection_emit_signal(
        bus, nullptr, DUSKVALE_KEEPER_BUS_PATH, DUSKVALE_KEEPER_BUS_NAME, "Logged",
        g_variant_new("(s)", duskvale_utf8(line.c_str()).c_str()), nullptr);
}

} // namespace keeper
