/*
 * The watch programs: every file in the directory whose name ends in ".watch". A round starts all
 * of them at once, without arguments. Exit status 0 means that the service works; with any other,
 * the first line of the output is the reason. What still runs of a program's process group at its
 * limit, or after its end, is killed.
 */
#pragma once

#include "keeper/edge/call.h"

namespace keeper {

/* Runs a round in a thread; `deliver` gets a WatchRan when the last of them has ended. */
void run_programs(const std::string &directory, Duration limit, const Deliver &deliver);

} // namespace keeper
