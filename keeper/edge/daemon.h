/* The daemon's object on the bus: its announcements in, calls to it out. Nothing here waits. */
#pragma once

#include "keeper/edge/call.h"

namespace keeper {

class Daemon {
public:
    /* `told` gets DaemonAppeared and DaemonVanished, and what the daemon announces, but for
       keep-alives (see pulse.h) and devices. */
    Daemon(GDBusConnection *bus, Told told);

    /* Leads to a SnapshotRead; but a state that cannot be read is only logged. */
    void read_snapshot();
    /* Any other call. A refusal is logged. */
    void send(const client::Call &asked) const;

private:
    GDBusConnection *bus;
    Told told;
    bool name_was_seen = false; /* with an owner or without one */
};

} // namespace keeper
