#include "client/call.h"

#include "base/paths.h"

namespace client {

namespace {

constexpr const char *properties_interface = "org.freedesktop.DBus.Properties";

} // namespace

Call get_all(const char *interface) {
    return {properties_interface, "GetAll", owned(g_variant_new("(s)", interface))};
}

Call set_preferred(bool preferred) {
    return {properties_interface, "Set",
            owned(g_variant_new("(ssv)", DUSKVALE_BUS_INTERFACE, "PreferredMaster",
                                g_variant_new_boolean(preferred)))};
}

Call take_over() {
    return {DUSKVALE_BUS_INTERFACE, "TakeOver"};
}

Call give_back() {
    return {DUSKVALE_BUS_INTERFACE, "GiveBack"};
}

Call freeze(const std::string &reason) {
    return {DUSKVALE_BUS_INTERFACE, "SetFreeze",
            owned(g_variant_new("(bs)", TRUE, reason.c_str()))};
}

Call unfreeze() {
    return {DUSKVALE_BUS_INTERFACE, "SetFreeze", owned(g_variant_new("(bs)", FALSE, ""))};
}

Call send_message(const std::string &text) {
    return {DUSKVALE_BUS_INTERFACE, "SendMessage", owned(g_variant_new("(s)", text.c_str()))};
}

Call keep_alive() {
    return {DUSKVALE_BUS_INTERFACE, "KeepAlive"};
}

Call hotplug(bool added, const std::string &devpath, const std::string &hardware_id,
             const std::string &location) {
    return {DUSKVALE_BUS_INTERFACE, "LumacrateHotplug",
            owned(g_variant_new("(bsss)", added, devpath.c_str(), hardware_id.c_str(),
                                location.c_str()))};
}

std::optional<bool> read_status(GVariant *reply) {
    gboolean granted = TRUE;
    if (g_variant_is_of_type(reply, G_VARIANT_TYPE("(b)"))) {
        g_variant_get(reply, "(b)", &granted);
    } else if (!g_variant_is_of_type(reply, G_VARIANT_TYPE_UNIT)) {
        return std::nullopt;
    }
    return granted != FALSE;
}

} // namespace client
