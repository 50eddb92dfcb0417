#include "dbus/methods.h"

#include "dbus/private.h"

namespace {

constexpr size_t min_nodes = 2; /* fewer have nobody to hand mastership to or keep it from */

/* What agents that can refuse answer when they do not. */
constexpr int accepted = 0;

/* `request` names the refused request in the log. */
bool too_few_nodes(const DuskvaleDBus *self, const char *request) {
    if (self->priv->node_count >= min_nodes) {
        return false;
    }
    DUSKVALE_WARN("Only %zd node -- ignoring %s change request\n",
                  static_cast<ssize_t>(self->priv->node_count), request);
    return true;
}

bool frozen(const DuskvaleDBus *self, const char *request) {
    if (self->priv->frozen_master == 0) {
        return false;
    }
    DUSKVALE_WARN("FROZEN to %d -- ignoring %s change request\n", self->priv->frozen_master,
                  request);
    return true;
}

} // namespace

gboolean duskvale_send_message(DuskvaleDBus *self, const char *text, GError ** /*error*/) noexcept {
    DBUS_DBG("message = %s\n", text);
    duskvale_dbus_call_agent(self, &DuskvaleDBusAgents::text_message, accepted, text);
    return TRUE;
}

gboolean duskvale_keep_alive(DuskvaleDBus *self, GError ** /*error*/) noexcept {
    DBUS_DBG("\n");
    duskvale_dbus_call_agent(self, &DuskvaleDBusAgents::keep_alive, accepted,
                             self->priv->local_node_id);
    return TRUE;
}

gboolean duskvale_take_over(DuskvaleDBus *self, gboolean *status, GError ** /*error*/) noexcept {
    DBUS_DBG("\n");
    *status = !frozen(self, "take-over") && !too_few_nodes(self, "take-over") &&
              duskvale_dbus_call_agent(self, &DuskvaleDBusAgents::take_over, accepted) >= accepted;
    return TRUE;
}

gboolean duskvale_give_back(DuskvaleDBus *self, gboolean *status, GError ** /*error*/) noexcept {
    DBUS_DBG("\n");
    *status = !frozen(self, "give-back") && !too_few_nodes(self, "give-back") &&
              duskvale_dbus_call_agent(self, &DuskvaleDBusAgents::give_back, accepted) >= accepted;
    return TRUE;
}

gboolean duskvale_set_freeze(DuskvaleDBus *self, gboolean wanted_state, const char *reason,
                             gboolean *status, GError ** /*error*/) noexcept {
    const uint32_t frozen_master = wanted_state ? self->priv->master_node_id : 0;
    DBUS_DBG("wanted_state = %d >>> frozen_master = %d\n", wanted_state,
             static_cast<gint32>(frozen_master));
    *status = !too_few_nodes(self, "set-freeze") &&
              duskvale_dbus_call_agent(self, &DuskvaleDBusAgents::frozen_master_was_set, accepted,
                                       frozen_master, reason) >= accepted;
    return TRUE;
}

gboolean duskvale_lumacrate_hotplug(DuskvaleDBus *self, gboolean added, const char *devpath,
                                    const char *hardware_id, const char *location,
                                    GError ** /*error*/) noexcept {
    DBUS_DBG("\n");
    duskvale_dbus_call_agent(self, &DuskvaleDBusAgents::lumacrate_hotplug, accepted, added, devpath,
                             hardware_id, location);
    return TRUE;
}
