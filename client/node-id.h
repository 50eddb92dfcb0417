#pragma once

#include <cstdint>

namespace client {

/* The id of a node in corosync. 0 means none: no master is known, nothing is frozen. */
using NodeId = uint32_t;

} // namespace client
