#include "dbus/duskvale-dbus.h"

#include "base/utf8.h"
#include "dbus/methods.h"
#include "dbus/private.h"
#include "dbus/settings.h"

/* Generated from the interface's XML; refers to the functions of methods.h. */
#include <duskvale-dbus-glue.h>

#include <climits>
#include <vector>

enum DuskvaleDBusProperty : guint {
    PROP_VERSION = 1,
    PROP_LOCAL_NODE_ID,
    PROP_NODE_COUNT,
    PROP_MASTER_NODE_ID,
    PROP_IS_MASTER,
    PROP_PREFERRED_MASTER,
    PROP_FROZEN_MASTER,
    PROP_LUMACRATES_COUNT,
    PROP_IN_TRANSITION,
    PROP_FROZEN_MASTER_REASON,
};

std::array<guint, SIGNAL_COUNT> duskvale_dbus_signals;

G_DEFINE_TYPE_WITH_PRIVATE(DuskvaleDBus, duskvale_dbus, G_TYPE_OBJECT)

GQuark duskvale_dbus_error_quark() noexcept {
    return g_quark_from_static_string("duskvale_dbus_error");
}

GType duskvale_dbus_error_get_type() noexcept {
    static const GEnumValue values[] = {
        {DUSKVALE_DBUS_ERROR_GENERAL, "DUSKVALE_DBUS_ERROR_GENERAL", "GeneralError"},
        {0, nullptr, nullptr},
    };
    static const GType type = g_enum_register_static("DuskvaleDBusError", values);
    return type;
}

static void duskvale_dbus_finalize(GObject *object) noexcept {
    DBUS_DBG("\n");
    g_return_if_fail(object != NULL);
    g_return_if_fail(DUSKVALE_IS_DBUS(object));
    DuskvaleDBus *dvdbus = DUSKVALE_DBUS(object);
    g_return_if_fail(dvdbus->priv != NULL);

    DuskvaleDBusPrivate *priv = dvdbus->priv;
    g_clear_object(&priv->bus_proxy);
    g_clear_pointer(&priv->connection, dbus_g_connection_unref);
    g_clear_pointer(&priv->version, g_free);
    g_clear_pointer(&priv->frozen_master_reason, g_free);
    G_OBJECT_CLASS(duskvale_dbus_parent_class)->finalize(object);
}

/* A null text stays null, which the bus binding answers as "". */
static void set_text(GValue *value, const char *text) {
    g_value_set_string(value, text != nullptr ? duskvale_utf8(text).c_str() : nullptr);
}

static void duskvale_dbus_get_property(GObject *object, guint id, GValue *value,
                                       GParamSpec *pspec) noexcept {
    DuskvaleDBus *self = DUSKVALE_DBUS(object);
    const DuskvaleDBusPrivate *priv = self->priv;
    DBUS_DBG("\n");
    switch (id) {
    case PROP_VERSION:
        set_text(value, priv->version);
        break;
    case PROP_LOCAL_NODE_ID:
        g_value_set_int(value, static_cast<gint>(priv->local_node_id));
        break;
    case PROP_NODE_COUNT:
        g_value_set_int(value, static_cast<gint>(priv->node_count));
        break;
    case PROP_MASTER_NODE_ID:
        g_value_set_int(value, static_cast<gint>(priv->master_node_id));
        break;
    case PROP_IS_MASTER:
        g_value_set_boolean(value, priv->master_node_id == priv->local_node_id);
        break;
    case PROP_PREFERRED_MASTER:
        g_value_set_boolean(value, priv->preferred_master != 0);
        break;
    case PROP_FROZEN_MASTER:
        g_value_set_int(value, priv->frozen_master);
        break;
    case PROP_LUMACRATES_COUNT:
        g_value_set_int(value,
                        duskvale_dbus_call_agent(self, &DuskvaleDBusAgents::lumacrates_count, 0));
        break;
    case PROP_IN_TRANSITION:
        g_value_set_boolean(value, priv->in_transition);
        break;
    case PROP_FROZEN_MASTER_REASON:
        set_text(value, priv->frozen_master_reason);
        break;
    default:
        DUSKVALE_ERR("Bad property id %d\n", static_cast<gint>(id));
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
    }
}

static void duskvale_dbus_set_property(GObject *object, guint id, const GValue *value,
                                       GParamSpec *pspec) noexcept {
    DuskvaleDBus *self = DUSKVALE_DBUS(object);
    DBUS_DBG("\n");
    if (id != PROP_PREFERRED_MASTER) {
        DUSKVALE_ERR("Bad property id %d\n", static_cast<gint>(id));
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
        return;
    }
    const gboolean preferred = g_value_get_boolean(value);
    self->priv->preferred_master = preferred;
    duskvale_set_preferred_master(self);
    duskvale_dbus_call_agent(self, &DuskvaleDBusAgents::preferred_master_was_set, 0, preferred);
}

static void duskvale_dbus_init(DuskvaleDBus *self) {
    DBUS_DBG("\n");
    self->priv = static_cast<DuskvaleDBusPrivate *>(duskvale_dbus_get_instance_private(self));
    self->priv->version = g_strdup("1.0");
    self->priv->frozen_master_reason = nullptr;
}

/* The bus binding finds each signal by the name in the interface's XML, turned into this form, and
   takes the signature from the types. */
struct SignalRow {
    const char *name;
    std::vector<GType> parameters;
};

static std::array<SignalRow, SIGNAL_COUNT> signal_table() noexcept {
    std::array<SignalRow, SIGNAL_COUNT> rows;
    rows[SIGNAL_NEW_MASTER] = {"notify_new_master", {G_TYPE_UINT}};
    rows[SIGNAL_FROZEN_MASTER] = {"notify_frozen_master", {G_TYPE_UINT, G_TYPE_STRING}};
    rows[SIGNAL_JOINED] = {"notify_joined", {G_TYPE_UINT, G_TYPE_UINT}};
    rows[SIGNAL_LEFT] = {"notify_left", {G_TYPE_UINT, G_TYPE_UINT}};
    rows[SIGNAL_KEEP_ALIVE] = {"notify_keep_alive", {G_TYPE_UINT}};
    rows[SIGNAL_GOT_MESSAGE] = {"notify_got_message", {G_TYPE_STRING}};
    rows[SIGNAL_LUMACRATE_HOTPLUG] = {
        "notify_lumacrate_hotplug",
        {G_TYPE_UINT, G_TYPE_UINT, G_TYPE_BOOLEAN, G_TYPE_STRING, G_TYPE_STRING, G_TYPE_STRING}};
    rows[SIGNAL_RUNSTEP_BEGIN] = {"notify_runstep_begin", {G_TYPE_STRING, G_TYPE_STRING}};
    rows[SIGNAL_RUNSTEP_END] = {"notify_runstep_end", {G_TYPE_STRING, G_TYPE_STRING, G_TYPE_INT}};
    rows[SIGNAL_RUNSTEPS_DONE] = {"notify_runsteps_done", {G_TYPE_UINT}};
    return rows;
}

static guint add_signal(GType type, SignalRow &row) noexcept {
    return g_signal_newv(row.name, type,
                         static_cast<GSignalFlags>(G_SIGNAL_RUN_LAST | G_SIGNAL_DETAILED), nullptr,
                         nullptr, nullptr, g_cclosure_marshal_generic, G_TYPE_NONE,
                         static_cast<guint>(row.parameters.size()), row.parameters.data());
}

static void install_properties(GObjectClass *object_class) noexcept {
    const auto add_int = [object_class](guint id, const char *name) {
        g_object_class_install_property(
            object_class, id,
            g_param_spec_int(name, nullptr, nullptr, 0, INT_MAX, 0, G_PARAM_READABLE));
    };
    const auto add_boolean = [object_class](guint id, const char *name, GParamFlags flags) {
        g_object_class_install_property(object_class, id,
                                        g_param_spec_boolean(name, nullptr, nullptr, FALSE, flags));
    };
    const auto add_string = [object_class](guint id, const char *name) {
        g_object_class_install_property(
            object_class, id,
            g_param_spec_string(name, nullptr, nullptr, nullptr, G_PARAM_READABLE));
    };
    add_string(PROP_VERSION, "version");
    add_int(PROP_LOCAL_NODE_ID, "local_node_id");
    add_int(PROP_NODE_COUNT, "node_count");
    add_int(PROP_MASTER_NODE_ID, "master_node_id");
    add_boolean(PROP_IS_MASTER, "is_master", G_PARAM_READABLE);
    add_boolean(PROP_PREFERRED_MASTER, "preferred_master", G_PARAM_READWRITE);
    add_int(PROP_FROZEN_MASTER, "frozen_master");
    add_int(PROP_LUMACRATES_COUNT, "lumacrates_count");
    add_boolean(PROP_IN_TRANSITION, "in_transition", G_PARAM_READABLE);
    add_string(PROP_FROZEN_MASTER_REASON, "frozen_master_reason");
}

static void duskvale_dbus_class_init(DuskvaleDBusClass *klass) {
    DBUS_DBG("\n");
    GObjectClass *object_class = G_OBJECT_CLASS(klass);
    object_class->finalize = duskvale_dbus_finalize;
    object_class->get_property = duskvale_dbus_get_property;
    object_class->set_property = duskvale_dbus_set_property;

    std::array<SignalRow, SIGNAL_COUNT> rows = signal_table();
    for (size_t i = 0; i < SIGNAL_COUNT; i++) {
        duskvale_dbus_signals[i] = add_signal(G_TYPE_FROM_CLASS(klass), rows[i]);
        DBUS_DBG("Signal %d registered\n", static_cast<gint>(duskvale_dbus_signals[i]));
    }
    dbus_g_object_type_install_info(G_TYPE_FROM_CLASS(klass), &dbus_glib_duskvale_object_info);
    install_properties(object_class);
    dbus_g_error_domain_register(duskvale_dbus_error_quark(), nullptr,
                                 duskvale_dbus_error_get_type());
}

DuskvaleDBus *duskvale_dbus_new(uint32_t local_nodeid, const DuskvaleDBusAgents *agents,
                                gpointer user_data) {
    if (local_nodeid == 0) {
        DUSKVALE_ERR("Illegal local_nodeid=%d\n", 0);
        return nullptr;
    }
    DBUS_DBG("local_nodeid=%u\n", local_nodeid);
    DuskvaleDBus *self = DUSKVALE_DBUS(g_object_new(DUSKVALE_TYPE_DBUS, nullptr));
    DuskvaleDBusPrivate *priv = self->priv;
    priv->user_data = user_data;
    priv->local_node_id = local_nodeid;
    priv->agents = agents;
    priv->master_node_id = 0;
    read_preferred_master(self);
    read_frozen_master(self);
    return self;
}

gint32 duskvale_get_preferred_master(DuskvaleDBus *self) {
    return self->priv->preferred_master;
}

uint32_t duskvale_get_frozen_master(DuskvaleDBus *self) {
    return static_cast<uint32_t>(self->priv->frozen_master);
}

const char *duskvale_get_frozen_master_reason(DuskvaleDBus *self) {
    return self->priv->frozen_master_reason;
}
