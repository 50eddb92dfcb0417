/*
 * What GLib and dbus-glib log by themselves. Any local user can make dbus-glib write a warning per
 * call, as with an argument too many: as many as the bus carries, and journald would drop the
 * daemon's own lines among them.
 */
#pragma once

/* From now on, of the warnings and whatever is less than that, only ten a minute are written, the
   last with a note that says so. Errors and critical messages all are. For the whole process; the
   messages of one thread. */
void duskvale_limit_glib_log();
