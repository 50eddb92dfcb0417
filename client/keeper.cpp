#include "client/keeper.h"

namespace client {

namespace {

Call of_keeper(const char *method, GVariant *arguments = nullptr) {
    return {DUSKVALE_KEEPER_BUS_NAME, method, arguments != nullptr ? owned(arguments) : nullptr};
}

/* A dictionary's value for each key; a key that is missing leaves the value as it is. */
class Fields {
public:
    explicit Fields(GVariant *of) : dictionary(of) {}

    void get(const char *key, std::string &value) const {
        const char *text = nullptr;
        if (g_variant_lookup(dictionary, key, "&s", &text)) {
            value = text;
        }
    }
    void get(const char *key, std::optional<std::string> &value) const {
        const Variant found(g_variant_lookup_value(dictionary, key, G_VARIANT_TYPE_STRING));
        if (found) {
            value = g_variant_get_string(found.get(), nullptr);
        }
    }
    void get(const char *key, bool &value) const {
        gboolean flag = FALSE;
        if (g_variant_lookup(dictionary, key, "b", &flag)) {
            value = flag != FALSE;
        }
    }
    void get(const char *key, int &value) const { g_variant_lookup(dictionary, key, "i", &value); }
    void get(const char *key, NodeId &value) const {
        g_variant_lookup(dictionary, key, "u", &value);
    }
    void get(const char *key, uint64_t &value) const {
        g_variant_lookup(dictionary, key, "t", &value);
    }
    void get(const char *key, std::optional<int64_t> &value) const {
        guint64 time = 0;
        if (g_variant_lookup(dictionary, key, "t", &time)) {
            value = static_cast<int64_t>(time);
        }
    }
    Variant value(const char *key, const char *type) const {
        return Variant(g_variant_lookup_value(dictionary, key, G_VARIANT_TYPE(type)));
    }

private:
    GVariant *dictionary;
};

KeeperNode read_node(GVariant *dictionary) {
    KeeperNode node;
    const Fields fields(dictionary);
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
        use(Variant(g_variant_get_child_value(container, i)).get());
    }
}

void read_heard(GVariant *times, std::vector<KeeperNode> &nodes) {
    for_each_child(times, [&nodes](GVariant *entry) {
        NodeId id = 0;
        guint64 time = 0;
        g_variant_get(entry, "{ut}", &id, &time);
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
    const Variant dictionary(g_variant_get_child_value(reply, 0));
    const Fields fields(dictionary.get());
    const Variant nodes = fields.value("Nodes", "aa{sv}");
    const Variant heard = fields.value("LastHeard", "a{ut}");
    const Variant causes = fields.value("Causes", "as");
    if (!nodes || !heard || !causes) {
        return std::nullopt;
    }
    KeeperState state;
    for_each_child(nodes.get(), [&](GVariant *node) { state.nodes.push_back(read_node(node)); });
    read_heard(heard.get(), state.nodes);
    for_each_child(causes.get(), [&](GVariant *cause) {
        state.causes.emplace_back(g_variant_get_string(cause, nullptr));
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
    return of_keeper("Move", g_variant_new("(u)", node));
}

Call keeper_fit() {
    return of_keeper("Fit");
}

Call keeper_prefer(bool preferred) {
    return of_keeper("Prefer", g_variant_new("(b)", preferred ? TRUE : FALSE));
}

} // namespace client
