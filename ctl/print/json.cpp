#include "ctl/print/json.h"

#include "version.h"

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

std::string json_line(const Json &object) {
    Json line = {{"schema", json_schema}};
    line.update(object);
    return line.dump(-1, ' ', false, Json::error_handler_t::replace);
}

} // namespace ctl
