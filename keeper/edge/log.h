/*
 * The keeper's log. A line goes to journald by its native protocol, over a datagram socket that is
 * never waited for: a journald that is stopped or overrun must not stop the keeper. What the socket
 * does not take is counted, and the count is logged as soon as it takes lines again. Where standard
 * error is not the journal's, lines go there instead. See
 * https://systemd.io/JOURNAL_NATIVE_PROTOCOL/.
 */
#pragma once

#include <string>

namespace keeper {

/* `priority` as in syslog(3), 0 to 7; `text` without a newline. Any thread may call it. */
void log_line(int priority, std::string text);

/* Logs the reason and ends the process with status 1. There is nothing else to do before: systemd
   starts the keeper again, and ends what its programs have left. */
[[noreturn]] void give_up(const std::string &reason);

/* What GLib itself warns of goes the same way; its own writer may wait for the journal. */
void log_for_glib();

} // namespace keeper
