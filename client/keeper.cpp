#include "client/keeper.h"

#include "client/fields.h"

#include <algorithm>

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

void read_heard(GVariant *times, std::vector<KeeperNode> &nodes) {
    GVariantIter entries;
    g_variant_iter_init(&entries, times);
    NodeId id = 0;
    guint64 time = 0;
    while (g_variant_iter_next(&entries, "{ut}", &id, &time)) {
        const auto node = std::ranges::find(nodes, id, &KeeperNode::id);
        if (node != nodes.end()) {
            node->heard = static_cast<int64_t>(time);
        }
    }
}

} // namespace

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
    for (gsize i = 0; i < g_variant_n_children(nodes.get()); i++) {
        state.nodes.push_back(read_node(Variant(g_variant_get_child_value(nodes.get(), i))));
    }
    read_heard(heard.get(), state.nodes);
    g_autofree const gchar **texts = g_variant_get_strv(causes.get(), nullptr);
    for (const gchar **text = texts; *text != nullptr; text++) {
        state.causes.emplace_back(*text);
    }
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
