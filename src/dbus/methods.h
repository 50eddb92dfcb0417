/*
 * The six methods of the object on the bus, called by the bus binding on the main-loop thread. Each
 * checks what the object itself knows and passes the request to its agent; none changes state: the
 * effect comes back through notify.h. All return TRUE and leave `error` alone, so that every call
 * is answered; `status` reports a refusal (FALSE, with a warning in the log). Strings are the
 * binding's, valid only during the call.
 */
#pragma once

#include "dbus/duskvale-dbus.h"

gboolean duskvale_send_message(DuskvaleDBus *self, const char *text, GError **error) noexcept;
gboolean duskvale_keep_alive(DuskvaleDBus *self, GError **error) noexcept;

/* Refused while mastership is frozen, and in a group of fewer than two nodes. */
gboolean duskvale_take_over(DuskvaleDBus *self, gboolean *status, GError **error) noexcept;
gboolean duskvale_give_back(DuskvaleDBus *self, gboolean *status, GError **error) noexcept;

/* Freezes to the master of this moment, or lifts the freeze (as does a wish to freeze while no
   master is known). Refused in a group of fewer than two nodes. */
gboolean duskvale_set_freeze(DuskvaleDBus *self, gboolean wanted_state, const char *reason,
                             gboolean *status, GError **error) noexcept;

gboolean duskvale_lumacrate_hotplug(DuskvaleDBus *self, gboolean added, const char *devpath,
                                    const char *hardware_id, const char *location,
                                    GError **error) noexcept;
