/*
 * The keeper's log: standard error, which is the journal's under systemd. A journald that is
 * stopped or overrun must not stop the keeper, so nothing here waits. What the journal does not
 * take is counted, and the count is logged as soon as it takes lines again.
 */
#pragma once

#include <syslog.h>

#include <string>

namespace keeper {

/* `priority` as in syslog(3), 0 to 7; `text` without a newline. Any thread may call it. */
void log_line(int priority, std::string text);

/* Logs the reason and ends the process with status 1. There is nothing else to do before: systemd
   starts the keeper again, and ends what its programs have left. */
[[noreturn]] void give_up(const std::string &reason);

/* What GLib itself warns of goes the same way. */
void log_for_glib();

} // namespace keeper
