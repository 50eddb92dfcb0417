/*
 * DuskvaleGCpg: the CPG connection driven by a GLib main loop. A custom GSource polls the
 * connection's descriptor and dispatches one event per readiness, so every agent call arrives on
 * the main-loop thread.
 *
 * When corosync is gone for good (the descriptor has hung up and a dispatch failed) no event can
 * ever come again and the descriptor stays ready for ever: the source is taken off the loop and the
 * process ends with status 1, so that its service manager starts it again.
 */
#pragma once

#include "cpg/duskvale-cpg.h"

#include <glib-object.h>

#define DUSKVALE_TYPE_GCPG (dvcpg_glib_get_type())
G_DECLARE_FINAL_TYPE(DuskvaleGCpg, dvcpg_glib, DUSKVALE, GCPG, GObject)

/*
 * A new object, owned by the caller; nothing is connected yet. `group_name`, `agents` and
 * `user_data` are borrowed and must outlive the object.
 */
DuskvaleGCpg *dvcpg_glib_new(const char *group_name, const DuskvaleGCpgAgents *agents,
                             gpointer user_data);

/* Connects, joins the group and attaches the source to `context`. FALSE after a logged failure. */
gboolean dvcpg_glib_register(DuskvaleGCpg *self, GMainContext *context);

/* Multicasts one buffer, read only during the call. CS_OK when corosync took it; see
   duskvale_cpg_send(). Needs a successful dvcpg_glib_register(). */
cs_error_t dvcpg_glib_send_message(DuskvaleGCpg *self, const void *buffer, size_t length);

/* The local node id. Needs a successful dvcpg_glib_register(). */
uint32_t duskvale_glib_local_nodeid(DuskvaleGCpg *self);
