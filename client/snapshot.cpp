#include "client/snapshot.h"

#include "client/fields.h"

namespace client {

std::optional<Snapshot> read_snapshot(GVariant *reply, std::string *fault) {
    const auto none = [fault](std::string why) -> std::optional<Snapshot> {
        if (fault != nullptr) {
            *fault = std::move(why);
        }
        return std::nullopt;
    };
    if (!g_variant_is_of_type(reply, G_VARIANT_TYPE("(a{sv})"))) {
        return none("no list of properties");
    }
    Fields fields{Variant(g_variant_get_child_value(reply, 0))};
    Snapshot snapshot;
    fields.get("Version", snapshot.interface_version);
    fields.get_signed("LocalNodeId", snapshot.local_node);
    fields.get_signed("MasterNodeId", snapshot.master_node);
    fields.get_signed("FrozenMaster", snapshot.frozen_node);
    fields.get("FrozenMasterReason", snapshot.frozen_reason);
    fields.get("NodeCount", snapshot.members);
    fields.get("LumacratesCount", snapshot.devices);
    fields.get("IsMaster", snapshot.is_master);
    fields.get("PreferredMaster", snapshot.preferred);
    fields.get("InTransition", snapshot.in_transition);
    if (!fields.missing().empty()) {
        return none("it lacks the property " + fields.missing());
    }
    return snapshot;
}

} // namespace client
