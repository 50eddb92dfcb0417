/* What the daemon reports of itself and the cluster at one moment: the properties of its object. */
#pragma once

#include "client/node-id.h"

#include <glib.h>

#include <optional>
#include <string>

namespace client {

struct Snapshot {
    std::string interface_version;
    NodeId local_node = 0;
    NodeId master_node = 0; /* 0 while none is known */
    NodeId frozen_node = 0; /* 0 while not frozen */
    std::string frozen_reason;
    int members = 0; /* 0 before the first report of the group */
    int devices = 0;
    bool is_master = false;
    bool preferred = false;
    bool in_transition = false; /* false also while a sequence of steps waits for another */

    bool operator==(const Snapshot &) const = default;
};

/*
 * Reads the reply to get_all() (client/call.h). Without a value, `fault` says in a few words what
 * is wrong with it; it may be null. Unknown properties are skipped. Node ids are signed on the bus.
 */
std::optional<Snapshot> read_snapshot(GVariant *reply, std::string *fault = nullptr);

} // namespace client
