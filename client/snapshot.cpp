#include "client/snapshot.h"

#include "client/handle.h"

namespace client {

namespace {

/* Reads one property after another; remembers the first that is missing or of another type. */
class Properties {
public:
    explicit Properties(GVariant *reply) : dictionary(g_variant_get_child_value(reply, 0)) {}

    std::string text(const char *name) {
        const char *value = "";
        look_up(name, "&s", &value);
        return value;
    }
    gint32 number(const char *name) {
        gint32 value = 0;
        look_up(name, "i", &value);
        return value;
    }
    NodeId node(const char *name) { return static_cast<NodeId>(number(name)); }
    bool flag(const char *name) {
        gboolean value = FALSE;
        look_up(name, "b", &value);
        return value != FALSE;
    }
    const std::string &missing() const { return first_missing; }

private:
    template <typename T>
    void look_up(const char *name, const char *type, T *value) {
        if (!g_variant_lookup(dictionary.get(), name, type, value) && first_missing.empty()) {
            first_missing = name;
        }
    }

    Variant dictionary;
    std::string first_missing;
};

} // namespace

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
    Properties properties(reply);
    Snapshot snapshot;
    snapshot.interface_version = properties.text("Version");
    snapshot.local_node = properties.node("LocalNodeId");
    snapshot.master_node = properties.node("MasterNodeId");
    snapshot.frozen_node = properties.node("FrozenMaster");
    snapshot.frozen_reason = properties.text("FrozenMasterReason");
    snapshot.members = properties.number("NodeCount");
    snapshot.devices = properties.number("LumacratesCount");
    snapshot.is_master = properties.flag("IsMaster");
    snapshot.preferred = properties.flag("PreferredMaster");
    snapshot.in_transition = properties.flag("InTransition");
    if (!properties.missing().empty()) {
        return none("it lacks the property " + properties.missing());
    }
    return snapshot;
}

} // namespace client
