#include "client/keeper.h"

#include "client/fields.h"

namespace client {

namespace {

KeeperNode read_node(Variant dictionary) {
    KeeperNode node;
    Fields fields(std::move(dictionary));
    fields.get("Id", node.id);
    fields.get("Name", node.name);
    fields.get("Role", node.role);
    fields.get("Steps", node.steps);
    fields.get("Step", node.step);
    fields.get("StepStatus", node.step_status);
    fields.get("Since", node.since);
    fields.get("Unfit", node.unfit);
    fields.get("Quorum", node.quorum);
    fields.get("Member", node.member);
    fields.get("Listed", node.listed);
    fields.get("Preferred", node.preferred);
    return node;
}

template <typename Use>
void for_each_child(GVariant *container, Use use) {
    for (gsize i = 0; i < g_variant_n_children(container); i++) {
        use(Variant(g_variant_get_child_value(container, i)));
    }
}

void read_heard(GVariant *times, std::vector<KeeperNode> &nodes) {
    for_each_child(times, [&nodes](const Variant &entry) {
        NodeId id = 0;
        guint64 time = 0;
        g_variant_get(entry.get(), "{ut}", &id, &time);
        for (KeeperNode &node : nodes) {
            if (node.id == id) {
                node.heard = static_cast<int64_t>(time);
            }
        }
    });
}

} // namespace

Call keeper_get_all() {
    return {"org.freedesktop.DBus.Properties", "GetAll",
            owned(g_variant_new("(s)", DUSKVALE_KEEPER_BUS_NAME))};
}

std::optional<KeeperState> read_keeper(GVariant *reply) {
    if (!g_variant_is_of_type(reply, G_VARIANT_TYPE("(a{sv})"))) {
        return std::nullopt;
    }
    Fields fields{Variant(g_variant_get_child_value(reply, 0))};
    const Variant nodes = fields.get("Nodes", "aa{sv}");
    const Variant heard = fields.get("LastHeard", "a{ut}");
    const Variant causes = fields.get("Causes", "as");
    if (!nodes || !heard || !causes) {
        return std::nullopt;
    }
    KeeperState state;
    for_each_child(nodes.get(),
                   [&](Variant node) { state.nodes.push_back(read_node(std::move(node))); });
    read_heard(heard.get(), state.nodes);
    for_each_child(causes.get(), [&](const Variant &cause) {
        state.causes.emplace_back(g_variant_get_string(cause.get(), nullptr));
    });
    fields.get("LocalNode", state.local_node);
    fields.get("Verdict", state.verdict);
    fields.get("Stay", state.stay);
    fields.get("QuorumGuard", state.quorum_guard);
    fields.get("FailedSteps", state.failed_steps);
    fields.get("MasterChanges", state.master_changes);
    fields.get("Aborts", state.aborts);
    return state;
}

Call keeper_move(NodeId node) {
    return {DUSKVALE_KEEPER_BUS_NAME, "Move", owned(g_variant_new("(u)", node))};
}

Call keeper_fit() {
    return {DUSKVALE_KEEPER_BUS_NAME, "Fit"};
}

Call keeper_prefer(bool preferred) {
    return {DUSKVALE_KEEPER_BUS_NAME, "Prefer", owned(g_variant_new("(b)", preferred))};
}

} // namespace client
