/* The daemon's object on the bus: its announcements in, calls to it out. Nothing here waits. */
#pragma once

#include "keeper/edge/call.h"

namespace keeper {

/* `deliver` gets DaemonAppeared or DaemonVanished at once, and then on each change; and what the
   daemon announces, but for keep-alives (see pulse.h) and devices. */
void follow_daemon(GDBusConnection *bus, Deliver &deliver);

/* Leads to a SnapshotRead; but a state that cannot be read is only logged. */
void read_daemon(GDBusConnection *bus, Deliver &deliver);

/* Any other call. A refusal is logged. */
void call_daemon(GDBusConnection *bus, const client::Call &asked);

} // namespace keeper
