#include "client/call.h"

#include "base/paths.h"

namespace client {

namespace {

constexpr const char *properties_interface = "org.freedesktop.DBus.Properties";

Call of_daemon(const char *method, GVariant *arguments = nullptr) {
    return {DUSKVALE_BUS_INTERFACE, method, arguments != nullptr ? owned(arguments) : nullptr};
}

gboolean boolean(bool value) {
    return value ? TRUE : FALSE;
}

} // namespace

Call get_all() {
    return {properties_interface, "GetAll", owned(g_variant_new("(s)", DUSKVALE_BUS_INTERFACE))};
}

Call set_preferred(bool preferred) {
    return {properties_interface, "Set",
            owned(g_variant_new("(ssv)", DUSKVALE_BUS_INTERFACE, "PreferredMaster",
                                g_variant_new_boolean(boolean(preferred))))};
}

Call take_over() {
    return of_daemon("TakeOver");
}

Call give_back() {
    return of_daemon("GiveBack");
}

Call freeze(const std::string &reason) {
    return of_daemon("SetFreeze", g_variant_new("(bs)", TRUE, reason.c_str()));
}

Call unfreeze() {
    return of_daemon("SetFreeze", g_variant_new("(bs)", FALSE, ""));
}

Call send_message(const std::string &text) {
    return of_daemon("SendMessage", g_variant_new("(s)", text.c_str()));
}

Call keep_alive() {
    return of_daemon("KeepAlive");
}

Call hotplug(bool added, const std::string &devpath, const std::string &hardware_id,
             const std::string &location) {
    return of_daemon("LumacrateHotplug", g_variant_new("(bsss)", boolean(added), devpath.c_str(),
                                                       hardware_id.c_str(), location.c_str()));
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
