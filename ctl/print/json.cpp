#include "ctl/print/json.h"

#include "version.h"

#include <glib.h>

namespace ctl {

Json json_node(client::NodeId node) {
    return node != 0 ? Json(node) : Json();
}

Json json_snapshot(const client::Snapshot &snapshot) {
    return {
        {"interface_version", snapshot.interface_version},
        {"program_version", DUSKVALE_VERSION},
        {"local_node", json_node(snapshot.local_node)},
        {"master_node", json_node(snapshot.master_node)},
        {"is_master", snapshot.is_master},
        {"members", snapshot.members},
        {"frozen_node", json_node(snapshot.frozen_node)},
        {"frozen_reason", snapshot.frozen_node != 0 ? Json(snapshot.frozen_reason) : Json()},
        {"preferred", snapshot.preferred},
        {"in_transition", snapshot.in_transition},
        {"devices", snapshot.devices},
    };
}

Json json_keeper(const client::KeeperState &keeper) {
    Json nodes = Json::array();
    const int64_t now = g_get_monotonic_time();
    const auto age = [now](const std::optional<int64_t> &since) {
        return since ? Json(static_cast<double>(now - *since) / G_USEC_PER_SEC) : Json();
    };
    for (const client::KeeperNode &node : keeper.nodes) {
        nodes.push_back({
            {"node", node.id},
            {"name", node.name.empty() ? Json() : Json(node.name)},
            {"role", node.role},
            {"steps", node.steps},
            {"step", node.step.empty() ? Json() : Json(node.step)},
            {"step_status", node.step_status},
            {"steps_age", age(node.since)},
            {"heard_age", age(node.heard)},
            {"unfit", node.unfit ? Json(*node.unfit) : Json()},
            {"quorum", node.quorum},
            {"member", node.member},
            {"listed", node.listed},
            {"preferred", node.preferred},
        });
    }
    return {{"verdict", keeper.verdict},
            {"causes", keeper.causes},
            {"stay", keeper.stay},
            {"quorum_guard", keeper.quorum_guard},
            {"nodes", std::move(nodes)}};
}

std::string json_line(const Json &object) {
    Json line = {{"schema", json_schema}};
    line.update(object);
    return line.dump(-1, ' ', false, Json::error_handler_t::replace);
}

} // namespace ctl
