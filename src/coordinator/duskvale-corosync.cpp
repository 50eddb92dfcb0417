#include "coordinator/duskvale-corosync.h"

#include "base/gobject-macros.h"
#include "base/log.h"
#include "base/paths.h"
#include "coordinator/private.h"

G_DEFINE_TYPE_WITH_PRIVATE(DuskvaleCorosync, duskvale_corosync, G_TYPE_OBJECT)

constexpr guint sync_period_seconds = 1;

constexpr DuskvaleGCpgAgents cpg_agents = {
    .joined = handle_joined,
    .left = handle_left,
    .got_message = handle_got_message,
};

constexpr DuskvaleLumacratesAgents lumacrates_agents = {
    .notify = dvlc_lumacrate_notify,
    .count = dvlc_lumacrate_count,
};

constexpr DuskvaleDBusAgents dbus_agents = {
    .text_message = handle_text_message,
    .keep_alive = handle_keep_alive,
    .preferred_master_was_set = preferred_master_was_set,
    .frozen_master_was_set = frozen_master_was_set,
    .take_over = do_take_over,
    .give_back = do_give_back,
    .lumacrate_hotplug = do_lumacrate_hotplug,
    .lumacrates_count = do_lumacrates_count,
};

constexpr DuskvaleRunAgents run_agents = {
    .step_start = run_step_start,
    .step_end = run_step_end,
    .steps_done = run_steps_done,
    .reserved = nullptr,
};

GQuark duskvale_corosync_error_quark() noexcept {
    return g_quark_from_static_string("duskvale_corosync_error");
}

GType duskvale_corosync_error_get_type() noexcept {
    static const GEnumValue values[] = {
        {DUSKVALE_COROSYNC_ERROR_GENERAL, "DUSKVALE_COROSYNC_ERROR_GENERAL", "GeneralError"},
        {0, nullptr, nullptr},
    };
    static const GType type = g_enum_register_static("DuskvaleCorosyncError", values);
    return type;
}

/* Reached only when the construction fails: the daemon never releases a coordinator that was handed
   out. So there is no runner and no election yet. */
static void duskvale_corosync_finalize(GObject *object) noexcept {
    COORDINATOR_DBG("\n");
    g_return_if_fail(object != NULL);
    g_return_if_fail(DUSKVALE_IS_COROSYNC(object));
    DuskvaleCorosync *dvcorosync = DUSKVALE_COROSYNC(object);
    g_return_if_fail(dvcorosync->priv != NULL);

    DuskvaleCorosyncPrivate *priv = dvcorosync->priv;
    if (priv->sync_timer != 0) {
        g_source_remove(priv->sync_timer);
        priv->sync_timer = 0;
    }
    g_clear_object(&priv->dbus);
    g_clear_object(&priv->cpg);
    if (priv->lumacrates != nullptr) {
        duskvale_lumacrates_destroy(priv->lumacrates);
        priv->lumacrates = nullptr;
    }
    G_OBJECT_CLASS(duskvale_corosync_parent_class)->finalize(object);
}

static void duskvale_corosync_init(DuskvaleCorosync *self) {
    COORDINATOR_DBG("\n");
    self->priv =
        static_cast<DuskvaleCorosyncPrivate *>(duskvale_corosync_get_instance_private(self));
    *self->priv = {};
}

static void duskvale_corosync_class_init(DuskvaleCorosyncClass *klass) {
    COORDINATOR_DBG("\n");
    G_OBJECT_CLASS(klass)->finalize = duskvale_corosync_finalize;
}

DuskvaleCorosync *duskvale_corosync_new(GMainContext *context) {
    /* Released on every early return, and with it whatever was made so far. */
    g_autoptr(DuskvaleCorosync) self =
        DUSKVALE_COROSYNC(g_object_new(DUSKVALE_TYPE_COROSYNC, nullptr));
    DuskvaleCorosyncPrivate *priv = self->priv;

    priv->cpg = dvcpg_glib_new(DUSKVALE_CPG_GROUP, &cpg_agents, self);
    if (priv->cpg == nullptr) {
        DUSKVALE_ERR("Failed dvcpg_glib_new()\n");
        return nullptr;
    }
    if (!dvcpg_glib_register(priv->cpg, context)) {
        DUSKVALE_ERR("Failed dvcpg_glib_register()\n");
        return nullptr;
    }
    priv->local.nodeid = duskvale_glib_local_nodeid(priv->cpg);
    COORDINATOR_DBG("local.nodeid=%u\n", priv->local.nodeid);

    priv->lumacrates = duskvale_lumacrates_new(&lumacrates_agents, self);
    if (priv->lumacrates == nullptr) {
        DUSKVALE_ERR("Failed duskvale_lumacrates_new()\n");
        return nullptr;
    }

    priv->dbus = duskvale_dbus_new(priv->local.nodeid, &dbus_agents, self);
    if (priv->dbus == nullptr) {
        DUSKVALE_ERR("Failed duskvale_dbus_new()\n");
        return nullptr;
    }
    priv->local.priority = duskvale_get_preferred_master(priv->dbus) != 0 ? 1 : 0;
    if (!duskvale_dbus_register(priv->dbus)) {
        DUSKVALE_ERR("Failed duskvale_dbus_register()\n");
        return nullptr;
    }

    /* Without a runner the daemon still elects; it then starts no steps. */
    duskvale_corosync_set_agents(self, DUSKVALE_RUN_DIR);
    priv->sync_timer = g_timeout_add_seconds(sync_period_seconds, sync_timer_callback, self);
    return g_steal_pointer(&self);
}

gboolean duskvale_corosync_set_agents(DuskvaleCorosync *self, const char *run_dir) {
    DuskvaleCorosyncPrivate *priv = self->priv;
    if (priv->run != nullptr) {
        DUSKVALE_ERR("%s: cannot be run twice\n", __func__);
        return FALSE;
    }
    if (run_dir == nullptr) {
        return TRUE;
    }
    priv->run = duskvale_run_new(run_dir, &run_agents, self);
    return priv->run != nullptr;
}

uint32_t duskvale_corosync_local_nodeid(DuskvaleCorosync *self) {
    return duskvale_glib_local_nodeid(self->priv->cpg);
}
