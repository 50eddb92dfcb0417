/* Before a start of the daemon, called by its unit: without quorum its steps would start services
   that the other side of a cut has, too. */
#pragma once

#include "keeper/policy/types.h"

#include <string>

namespace keeper {

/*
 * Waits until this node has quorum, and for 90 s at most; then ends the process. The status is 0
 * also where the policy asks for no quorum or corosync cannot be asked, and 1 when the time has
 * passed.
 */
[[noreturn]] void hold_for_quorum(const Config &config);

/*
 * The daemon truncates a settings file and then writes it; a kill, a power loss or a full disk in
 * between leaves an empty one, with which the next daemon would lift the freeze of the whole
 * cluster. So a file that is there and does not begin with a number gets `text`, what the keeper
 * remembers of it; unless that is empty.
 */
void repair_setting(const char *path, const std::string &text);

} // namespace keeper
