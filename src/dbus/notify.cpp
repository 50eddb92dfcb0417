#include "dbus/notify.h"

#include "base/utf8.h"
#include "dbus/private.h"
#include "dbus/settings.h"

namespace {

/* Emits `signal`, which the bus binding forwards. Texts must have passed duskvale_utf8(), and a
   boolean must be 0 or 1: libdbus ends the process over anything else. */
template <typename... Args>
gboolean emit(DuskvaleDBus *self, DuskvaleDBusSignal signal, Args... args) {
    g_signal_emit(self, duskvale_dbus_signals[signal], 0, args...);
    return TRUE;
}

} // namespace

gboolean duskvale_notify_new_master(DuskvaleDBus *self, uint32_t nodeid) {
    DBUS_DBG("nodeid=%u\n", nodeid);
    self->priv->in_transition = TRUE;
    emit(self, SIGNAL_NEW_MASTER, nodeid);
    self->priv->master_node_id = nodeid;
    return TRUE;
}

gboolean duskvale_notify_frozen_master(DuskvaleDBus *self, uint32_t nodeid, const char *reason) {
    DuskvaleDBusPrivate *priv = self->priv;
    const char *given = reason != nullptr ? reason : "";
    DBUS_DBG("frozen_master=%d (%s)\n", static_cast<gint32>(nodeid), given);
    /* Before the old reason goes: a caller may hand back the very text that the getter gave it. */
    const std::string announced = duskvale_utf8(given);
    gchar *held = nodeid != 0 ? g_strdup(given) : nullptr;
    g_free(priv->frozen_master_reason);
    priv->frozen_master_reason = held;
    priv->frozen_master = static_cast<gint32>(nodeid);
    update_frozen_master(self);
    return emit(self, SIGNAL_FROZEN_MASTER, nodeid, announced.c_str());
}

gboolean duskvale_notify_joined(DuskvaleDBus *self, uint32_t nodeid, size_t node_count) {
    DBUS_DBG("nodeid=%u (node_count=%zd)\n", nodeid, static_cast<ssize_t>(node_count));
    self->priv->node_count = node_count;
    return emit(self, SIGNAL_JOINED, nodeid, static_cast<guint>(node_count));
}

gboolean duskvale_notify_left(DuskvaleDBus *self, uint32_t nodeid, size_t node_count) {
    DBUS_DBG("nodeid=%u (node_count=%zd)\n", nodeid, static_cast<ssize_t>(node_count));
    self->priv->node_count = node_count;
    return emit(self, SIGNAL_LEFT, nodeid, static_cast<guint>(node_count));
}

gboolean duskvale_notify_keep_alive(DuskvaleDBus *self, uint32_t nodeid) {
    DBUS_DBG("nodeid=%u\n", nodeid);
    return emit(self, SIGNAL_KEEP_ALIVE, nodeid);
}

gboolean duskvale_notify_got_message(DuskvaleDBus *self, const char *text) {
    DBUS_DBG("message = %s\n", text);
    return emit(self, SIGNAL_GOT_MESSAGE, duskvale_utf8(text).c_str());
}

gboolean duskvale_notify_lumacrate_hotplug(DuskvaleDBus *self, uint32_t nodeid, gint32 total,
                                           gboolean added, const char *hardware_id,
                                           const char *location, const char *devpath) {
    DBUS_DBG("%s(%d): total=%d [%s] @%s (%s)\n", added ? "ADDED" : "REMOVED",
             static_cast<gint32>(nodeid), total, hardware_id, location, devpath);
    return emit(self, SIGNAL_LUMACRATE_HOTPLUG, nodeid, static_cast<guint>(total),
                added ? TRUE : FALSE, duskvale_utf8(hardware_id).c_str(),
                duskvale_utf8(location).c_str(), duskvale_utf8(devpath).c_str());
}

gboolean duskvale_notify_runstep_begin(DuskvaleDBus *self, const char *step, const char *action) {
    DBUS_DBG("%-15s %s\n", step, action);
    return emit(self, SIGNAL_RUNSTEP_BEGIN, duskvale_utf8(step).c_str(),
                duskvale_utf8(action).c_str());
}

gboolean duskvale_notify_runstep_end(DuskvaleDBus *self, const char *step, const char *action,
                                     gint32 status) {
    DBUS_DBG("%-15s %s [status=%d]\n", step, action, status);
    return emit(self, SIGNAL_RUNSTEP_END, duskvale_utf8(step).c_str(),
                duskvale_utf8(action).c_str(), status);
}

gboolean duskvale_notify_runsteps_done(DuskvaleDBus *self, uint32_t errors) {
    DBUS_DBG("Total errors = %d\n", static_cast<gint32>(errors));
    self->priv->in_transition = FALSE;
    return emit(self, SIGNAL_RUNSTEPS_DONE, errors);
}
