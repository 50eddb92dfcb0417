/*
 * DuskvaleDBus: the daemon as one object on the system bus. It keeps the state that the bus shows,
 * serves property reads and the one property write, and passes requests on through its agent table.
 * It holds the two settings that outlive a restart (see settings.h).
 *
 * This header is what the owner needs: life, registration, getters. How the owner reports events is
 * in notify.h.
 */
#pragma once

#include <glib-object.h>

#include <cstdint>

/* A null table or slot is skipped; then the default result holds. Strings are valid only during the
   call. */
struct DuskvaleDBusAgents {
    int (*text_message)(gpointer user_data, const char *text);
    int (*keep_alive)(gpointer user_data, uint32_t local_nodeid);
    int (*preferred_master_was_set)(gpointer user_data, gboolean preferred);
    /* `nodeid` 0 lifts the freeze. Accepted when 0 or more; default accepted. */
    int (*frozen_master_was_set)(gpointer user_data, uint32_t nodeid, const char *reason);
    /* Accepted when 0 or more; default accepted. */
    int (*take_over)(gpointer user_data);
    int (*give_back)(gpointer user_data);
    int (*lumacrate_hotplug)(gpointer user_data, gboolean added, const char *devpath,
                             const char *hardware_id, const char *location);
    /* The number of local devices; default 0. */
    int (*lumacrates_count)(gpointer user_data);
};

/* Registered with the bus binding; no method fails, so no reply carries it. */
enum DuskvaleDBusError { DUSKVALE_DBUS_ERROR_GENERAL = 0 };
GQuark duskvale_dbus_error_quark() noexcept;
GType duskvale_dbus_error_get_type() noexcept;

#define DUSKVALE_TYPE_DBUS (duskvale_dbus_get_type())
G_DECLARE_FINAL_TYPE(DuskvaleDBus, duskvale_dbus, DUSKVALE, DBUS, GObject)

/*
 * A new object, owned by the caller, with the stored settings loaded; null (logged) when
 * `local_nodeid` is 0. Does not touch the bus. `agents` (may be null) and `user_data` are borrowed.
 */
DuskvaleDBus *duskvale_dbus_new(uint32_t local_nodeid, const DuskvaleDBusAgents *agents,
                                gpointer user_data);

/*
 * Connects to the system bus, exports the object and waits for the well-known name. TRUE when the
 * name is owned; FALSE after a logged failure, with the object still exported on the connection.
 * Call it once.
 */
gboolean duskvale_dbus_register(DuskvaleDBus *self);

/* Non-zero when this node is preferred as master. */
gint32 duskvale_get_preferred_master(DuskvaleDBus *self);

/* The node mastership is frozen to; 0 when it is not frozen. */
uint32_t duskvale_get_frozen_master(DuskvaleDBus *self);

/* The reason of the freeze, as stored; null when none is held. Borrowed, valid until the next
   duskvale_notify_frozen_master(). */
const char *duskvale_get_frozen_master_reason(DuskvaleDBus *self);
