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

class Pulse {
public:
    /* `deliver` gets each keep-alive that the daemon announces, also those of other nodes. */
    explicit Pulse(Deliver deliver);

    void send();

private:
    static int on_keep_alive(sd_bus_message *message, void *self, sd_bus_error *) noexcept;
    static gboolean on_ready(gint, GIOCondition, gpointer self) noexcept;

    Deliver deliver;
    sd_bus *bus = nullptr;
};

} // namespace keeper
