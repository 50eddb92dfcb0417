/*
 * What corosync knows: quorum, from libquorum, and node list and time-outs, from libcmap. Their
 * calls wait for an answer without limit, and a corosync that is frozen gives none; so they are
 * made by a thread of their own, which lasts until the process ends and must be left behind by
 * _exit(2).
 *
 * See quorum_overview(3), cmap_overview(3), cmap_keys(7).
 */
#pragma once

#include "keeper/edge/call.h"

namespace keeper {

/*
 * From now on `deliver` gets a Corosync for each change. When the connection is lost, or the first
 * attempt fails, one says so; then it connects again. A frozen corosync has no changes to report.
 */
void follow_corosync(const Deliver &deliver);

} // namespace keeper
