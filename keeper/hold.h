/* Before a start of the daemon, called by its unit: without quorum its steps would start services
   that the other side of a cut has, too. */
#pragma once

#include "keeper/policy/types.h"

namespace keeper {

/*
 * Waits until this node has quorum, and for 90 s at most; then ends the process. The status is 0
 * also where the policy asks for no quorum or corosync cannot be asked, and 1 when the time has
 * passed.
 */
[[noreturn]] void hold_for_quorum(const Config &config);

} // namespace keeper
