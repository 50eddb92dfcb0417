/* What the daemon says of itself and the cluster at one moment. */
#pragma once

#include "ctl/problem.h"

#include <gio/gio.h>

#include <cstdint>
#include <string>

namespace ctl {

struct Snapshot {
    std::string version;
    uint32_t local_node = 0;
    uint32_t master_node = 0; /* 0 while none is known */
    uint32_t frozen_node = 0; /* 0 while not frozen */
    std::string frozen_reason;
    int members = 0; /* 0 before the first report of the group */
    int devices = 0;
    bool is_master = false;
    bool preferred = false;
    bool in_transition = false;

    bool operator==(const Snapshot &) const = default;
};

/* Reads the answer to GetAll, of the type (a{sv}). Node ids stand on the bus as signed numbers. */
Result<Snapshot> read_snapshot(GVariant *answer);

} // namespace ctl
