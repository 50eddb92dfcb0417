/* systemd's view of the daemon's unit, over the bus: org.freedesktop.systemd1(5). */
#pragma once

#include "keeper/edge/call.h"

namespace keeper {

class Unit {
public:
    /* `told` gets an UnitChanged for the state now and for each change. */
    Unit(GDBusConnection *bus, const char *name, Told told);

    /* SIGKILL to the main process if that is still `main_pid`. A refusal is logged. */
    void kill(uint32_t main_pid);

private:
    void read();

    GDBusConnection *bus;
    const char *name;
    std::string path;
    Told told;
    std::optional<UnitChanged> last;
};

} // namespace keeper
