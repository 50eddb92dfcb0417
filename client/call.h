/*
 * The calls that the daemon's object takes, as values: a caller sends them in its own way, to the
 * name DUSKVALE_BUS_NAME and the path DUSKVALE_BUS_PATH (base/paths.h). All texts must be valid
 * UTF-8, the only kind that GVariant and the bus carry.
 */
#pragma once

#include "client/handle.h"

#include <optional>
#include <string>

namespace client {

struct Call {
    const char *interface;
    const char *method;
    Variant arguments = nullptr; /* null for none */
};

/* Answered with all properties of the interface: read_snapshot(), read_keeper(). */
Call get_all(const char *interface);
/* Starts an election unless mastership is frozen. */
Call set_preferred(bool preferred);

/* The daemon may refuse these: read_status(). A grant means that it was multicast, or tried to be;
   the effect is announced. */
Call take_over();
Call give_back();
Call freeze(const std::string &reason);
Call unfreeze();

/* Never refused. */
Call send_message(const std::string &text);
Call keep_alive();
Call hotplug(bool added, const std::string &devpath, const std::string &hardware_id,
             const std::string &location);

/* What the reply to one of these says: false when the daemon refused. No value when the reply is of
   another type than the daemon's. */
std::optional<bool> read_status(GVariant *reply);

} // namespace client
