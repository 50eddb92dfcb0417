/* How what the keeper knows of the nodes is written for eyes. */
#pragma once

#include "client/keeper.h"

#include <string>

namespace ctl {

/* The name in corosync's node list, or "node 3" without one. */
std::string node_text(const client::KeeperNode &node);
/* "settled", "running 50-db.run for 12 s", "failed 50-db.run: exited with status 3" */
std::string steps_text(const client::KeeperNode &node);
/* A line for each node under a line of headings. */
std::string nodes_table(const client::KeeperState &keeper);

} // namespace ctl
