/* The keeper's process: the machine of the policies between the edges that feed it and obey it. */
#pragma once

#include "keeper/policy/types.h"

namespace keeper {

/* Runs until SIGTERM, whose default is just right, or until something goes wrong that only a new
   start repairs; then the process ends with status 1. */
[[noreturn]] void run_process(const Config &config);

} // namespace keeper
