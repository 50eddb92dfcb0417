/*
 * DuskvaleCorosync: the coordinator of this node. It owns the CPG source, the device inventory, the
 * bus object and the step runner, speaks the cluster's protocol with its peers, and decides who is
 * master. Exactly one exists in the daemon; main-loop thread only.
 */
#pragma once

#include <glib-object.h>

#include <cstdint>

/* No operation reports through this domain. */
enum DuskvaleCorosyncError { DUSKVALE_COROSYNC_ERROR_GENERAL = 0 };
GQuark duskvale_corosync_error_quark() noexcept;
GType duskvale_corosync_error_get_type() noexcept;

#define DUSKVALE_TYPE_COROSYNC (duskvale_corosync_get_type())
G_DECLARE_FINAL_TYPE(DuskvaleCorosync, duskvale_corosync, DUSKVALE, COROSYNC, GObject)

/*
 * Builds the whole daemon on `context` (the default main context): joins the CPG group, scans the
 * devices, owns the bus name, makes the runner and starts the sync timer. Null, with everything
 * released, after a logged failure. No event is handled before the loop runs.
 */
DuskvaleCorosync *duskvale_corosync_new(GMainContext *context);

/* Makes the step runner for `run_dir`; with null, none. FALSE when one exists already (logged) or
   could not be made. */
gboolean duskvale_corosync_set_agents(DuskvaleCorosync *self, const char *run_dir);

/* The local node id, as corosync gave it. */
uint32_t duskvale_corosync_local_nodeid(DuskvaleCorosync *self);
