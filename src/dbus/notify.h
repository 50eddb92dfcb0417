/*
 * How the owner of the bus object reports to it what happened: each function brings the published
 * state up to date and emits one signal. All return TRUE; strings are borrowed for the call. They
 * may be called from the object's creation on; before its registration the signals reach nobody.
 */
#pragma once

#include "dbus/duskvale-dbus.h"

/* A master was applied, perhaps the same one again. InTransition rises. */
gboolean duskvale_notify_new_master(DuskvaleDBus *self, uint32_t nodeid);

/* The cluster's freeze changed: stores it, writes or removes its file. `nodeid` 0 lifts it;
   `reason` may be null. */
gboolean duskvale_notify_frozen_master(DuskvaleDBus *self, uint32_t nodeid, const char *reason);

gboolean duskvale_notify_joined(DuskvaleDBus *self, uint32_t nodeid, size_t node_count);
gboolean duskvale_notify_left(DuskvaleDBus *self, uint32_t nodeid, size_t node_count);
gboolean duskvale_notify_keep_alive(DuskvaleDBus *self, uint32_t nodeid);
gboolean duskvale_notify_got_message(DuskvaleDBus *self, const char *text);

/* A device event of node `nodeid`, whose total is now `total`. */
gboolean duskvale_notify_lumacrate_hotplug(DuskvaleDBus *self, uint32_t nodeid, gint32 total,
                                           gboolean added, const char *hardware_id,
                                           const char *location, const char *devpath);

/* `action` is "start" or "stop". */
gboolean duskvale_notify_runstep_begin(DuskvaleDBus *self, const char *step, const char *action);

/* `status` is the raw wait status, see wait(2). */
gboolean duskvale_notify_runstep_end(DuskvaleDBus *self, const char *step, const char *action,
                                     gint32 status);

/* The sequence of run steps is done, `errors` of them failed. InTransition falls. */
gboolean duskvale_notify_runsteps_done(DuskvaleDBus *self, uint32_t errors);
