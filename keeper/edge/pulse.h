/*
 * Keep-alives of this node, out through the daemon and back through corosync. They are what the
 * keeper does when all is at rest, once a second, so they have a connection of their own: with
 * sd-bus(3) the main loop sends and receives them itself, where GDBus wakes a thread for each
 * message in either direction.
 */
#pragma once

#include "keeper/edge/call.h"

#include <systemd/sd-bus.h>

namespace keeper {

/* From now on `deliver` gets each keep-alive that the daemon announces, also those of other nodes.
   The connection is the caller's, for send_keep_alive(). */
sd_bus *follow_keep_alives(Deliver &deliver);

void send_keep_alive(sd_bus *bus);

} // namespace keeper
