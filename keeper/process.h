/* The keeper's process: the machine of the policies between the edges that feed it and obey it. */
#pragma once

#include "keeper/policy/types.h"

namespace keeper {

/* Returns the exit status: 0 after SIGTERM or SIGINT. Threads may still run: leave with _exit(2).
 */
int run_process(const Config &config);

} // namespace keeper
