/* systemd's view of the daemon's unit, over the bus: org.freedesktop.systemd1(5). */
#pragma once

#include "keeper/edge/call.h"

namespace keeper {

/* `deliver` gets an UnitChanged for the state now and after each change. */
void follow_unit(GDBusConnection *bus, Deliver &deliver);

/* SIGKILL to the unit's main process. A refusal is logged. */
void kill_unit(GDBusConnection *bus);

} // namespace keeper
