/* What the files of this folder share: the record behind the object and the way to its agents. */
#pragma once

#include "base/gobject-macros.h"
#include "base/log.h"
#include "dbus/duskvale-dbus.h"

#include <dbus/dbus-glib.h>

#include <array>

struct DuskvaleDBusPrivate {
    DBusGConnection *connection; /* owned */
    DBusGProxy *bus_proxy;       /* owned */
    gchar *version;              /* owned */
    uint32_t master_node_id;
    gboolean in_transition;
    uint32_t local_node_id;
    size_t node_count;
    gint32 preferred_master;     /* non-zero: preferred */
    gint32 frozen_master;        /* the node id's 32 bits; 0: not frozen */
    gchar *frozen_master_reason; /* owned; null while none is held */
    const DuskvaleDBusAgents *agents;
    gpointer user_data;
};

struct _DuskvaleDBus {
    GObject parent_instance;
    DuskvaleDBusPrivate *priv;
};

/* In the order in which clients see them. */
enum DuskvaleDBusSignal : size_t {
    SIGNAL_NEW_MASTER,
    SIGNAL_FROZEN_MASTER,
    SIGNAL_JOINED,
    SIGNAL_LEFT,
    SIGNAL_KEEP_ALIVE,
    SIGNAL_GOT_MESSAGE,
    SIGNAL_LUMACRATE_HOTPLUG,
    SIGNAL_RUNSTEP_BEGIN,
    SIGNAL_RUNSTEP_END,
    SIGNAL_RUNSTEPS_DONE,
    SIGNAL_COUNT
};

/* The ids of the class's signals, valid once the class is initialised. */
extern std::array<guint, SIGNAL_COUNT> duskvale_dbus_signals;

#define DBUS_DBG(...) DUSKVALE_DBG(LogCategory::dbus, __VA_ARGS__)

/* Calls an agent, such as &DuskvaleDBusAgents::take_over; `fallback` when there is none. */
template <typename Slot, typename... Args>
int duskvale_dbus_call_agent(const DuskvaleDBus *self, Slot slot, int fallback, Args... args) {
    const DuskvaleDBusAgents *agents = self->priv->agents;
    if (agents == nullptr || agents->*slot == nullptr) {
        return fallback;
    }
    return (agents->*slot)(self->priv->user_data, args...);
}
