/* How things are written for programs: a JSON object on a line. */
#pragma once

#include "client/keeper.h"
#include "client/snapshot.h"

#include <nlohmann/json.hpp>

#include <string>

namespace ctl {

/* Grows by one with each change that a program could notice other than an added key. */
constexpr int json_schema = 2;

/* Keeps the order in which members are added. */
using Json = nlohmann::ordered_json;

/* Null for a node that does not exist. */
Json json_node(client::NodeId node);
/* The members of a snapshot, and the version of this program. */
Json json_snapshot(const client::Snapshot &snapshot);
/* What the keeper knows of all nodes. */
Json json_keeper(const client::KeeperState &keeper);

/* The schema number and the members of `object`, as one line without the newline. Bytes that are
   not UTF-8 are replaced: texts of other nodes may hold anything. */
std::string json_line(const Json &object);

} // namespace ctl
