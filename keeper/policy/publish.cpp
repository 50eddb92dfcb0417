#include "keeper/policy/policies.h"
#include "keeper/version.h"

#include "base/utf8.h"

#include <array>

namespace keeper {

/* By the values of their enumerations. */
constexpr std::array phases{"unknown",      "none",     "running", "settled",    "failed",
                            "not-runnable", "stopping", "stopped", "stop-failed"};
constexpr std::array quorums{"unknown", "yes", "no"};
constexpr std::array levels{"ok", "warning", "critical", "unknown"};

static GVariant *text(const std::string &value) {
    return g_variant_new_string(duskvale_utf8(value.c_str()).c_str());
}

static GVariant *flag(bool value) {
    return g_variant_new_boolean(gboolean{value});
}

/* In microseconds. */
static GVariant *time(Time value) {
    return g_variant_new_uint64(static_cast<guint64>(std::chrono::microseconds(value).count()));
}

static GVariant *node_status(const Known &known, NodeId node, const std::string &name) {
    const bool current = node == known.local || known.present(node);
    const Report report = current ? known.report(node) : Report();
    const std::string unfit = known.why_unfit(node);
    const char *role = !known.member(node)     ? "down"
                       : report.master == 0    ? "unknown"
                       : report.master == node ? "master"
                                               : "slave";
    GVariantDict dict;
    g_variant_dict_init(&dict, nullptr);
    const auto add = [&dict](const char *key, GVariant *value) {
        g_variant_dict_insert_value(&dict, key, value);
    };
    add("Id", g_variant_new_uint32(node));
    add("Name", text(name));
    add("Role", text(role));
    add("Steps", text(phases.at(static_cast<size_t>(report.steps.phase))));
    add("Step", text(report.steps.step));
    add("StepStatus", g_variant_new_int32(report.steps.status));
    add("Quorum", text(quorums.at(static_cast<size_t>(report.quorum))));
    add("Member", flag(known.member(node)));
    add("Listed", flag(known.corosync.nodes.contains(node)));
    add("Preferred", flag(report.wanted));
    add("Leaving", flag(report.leaving));
    if (report.steps.since != Time(0)) {
        add("Since", time(report.steps.since));
    }
    if (!unfit.empty()) {
        add("Unfit", text(unfit));
    }
    return g_variant_dict_end(&dict);
}

Properties publish(const Known &known, const Verdict &verdict, const std::string &freeze_changed) {
    const std::string quorum_off = QuorumGuard::why_off(known.config, known.corosync);
    GVariantBuilder nodes, heard, causes;
    g_variant_builder_init(&nodes, G_VARIANT_TYPE("aa{sv}"));
    g_variant_builder_init(&heard, G_VARIANT_TYPE("a{ut}"));
    g_variant_builder_init(&causes, G_VARIANT_TYPE("as"));
    for (const auto &[node, name] : known.nodes()) {
        g_variant_builder_add_value(&nodes, node_status(known, node, name));
    }
    for (const auto &[node, peer] : known.peers) {
        if (node != known.local) {
            g_variant_builder_add(&heard, "{u@t}", node, time(peer.heard));
        }
    }
    for (const std::string &cause : verdict.causes) {
        g_variant_builder_add_value(&causes, text(cause));
    }
    const std::pair<const char *, GVariant *> all[] = {
        {"Version", text(DUSKVALE_VERSION)},
        {"LocalNode", g_variant_new_uint32(known.local)},
        {"Nodes", g_variant_builder_end(&nodes)},
        {"LastHeard", g_variant_builder_end(&heard)},
        {"Verdict", text(levels.at(static_cast<size_t>(verdict.level)))},
        {"Causes", g_variant_builder_end(&causes)},
        {"Master", g_variant_new_uint32(known.current.master_node)},
        {"Frozen", g_variant_new_uint32(known.current.frozen_node)},
        {"FreezeChanged", text(freeze_changed)},
        {"Stay", text(known.stay_off.empty() ? "on" : known.stay_off)},
        {"QuorumGuard", text(quorum_off.empty() ? "on" : quorum_off)},
        {"Moving", text(known.moving ? Move::describe(known, *known.moving) : "")},
        {"FailedSteps", g_variant_new_uint64(known.failed_steps)},
        {"MasterChanges", g_variant_new_uint64(known.master_changes)},
        {"Aborts", g_variant_new_uint64(known.aborts)},
    };
    Properties properties;
    for (const auto &[name, value] : all) {
        properties.emplace(name, client::owned(value));
    }
    return properties;
}

} // namespace keeper
