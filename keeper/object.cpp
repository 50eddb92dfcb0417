#include "keeper/object.h"

#include "keeper/paths.h"
#include "keeper/version.h"

#include "base/utf8.h"

#include <array>

namespace keeper {

constexpr const char *refused = DUSKVALE_KEEPER_BUS_NAME ".Error.Refused";
/* By the values of their enumerations. */
constexpr std::array phases{"unknown",      "none",     "running", "settled",    "failed",
                            "not-runnable", "stopping", "stopped", "stop-failed"};
constexpr std::array quorums{"unknown", "yes", "no"};
constexpr std::array levels{"ok", "unknown", "warning", "critical"};

template <Asked::What what>
static gboolean on_call(DuskvaleKeeper *, GDBusMethodInvocation *call, gpointer deliver) noexcept {
    (*static_cast<Deliver *>(deliver))(Asked{.what = what, .call = call});
    return TRUE;
}

static gboolean on_move(DuskvaleKeeper *, GDBusMethodInvocation *call, guint target,
                        gpointer deliver) noexcept {
    (*static_cast<Deliver *>(deliver))(Asked{.what = Asked::move, .call = call, .target = target});
    return TRUE;
}

static gboolean on_prefer(DuskvaleKeeper *, GDBusMethodInvocation *call, gboolean on,
                          gpointer deliver) noexcept {
    (*static_cast<Deliver *>(deliver))(Asked{.what = Asked::prefer, .call = call, .on = on != 0});
    return TRUE;
}

DuskvaleKeeper *export_object(GDBusConnection *bus, Deliver &deliver) {
    DuskvaleKeeper *object = duskvale_keeper_skeleton_new();
    g_signal_connect(object, "handle-move", G_CALLBACK(on_move), &deliver);
    g_signal_connect(object, "handle-hand-over", G_CALLBACK(on_call<Asked::hand_over>), &deliver);
    g_signal_connect(object, "handle-fit", G_CALLBACK(on_call<Asked::fit>), &deliver);
    g_signal_connect(object, "handle-prefer", G_CALLBACK(on_prefer), &deliver);
    g_dbus_interface_skeleton_export(G_DBUS_INTERFACE_SKELETON(object), bus,
                                     DUSKVALE_KEEPER_BUS_PATH, nullptr);
    return object;
}

void answer_call(void *call, bool ok, const std::string &text) {
    auto *invocation = static_cast<GDBusMethodInvocation *>(call);
    const std::string said = duskvale_utf8(text.c_str());
    if (ok) {
        g_dbus_method_invocation_return_value(invocation, g_variant_new("(s)", said.c_str()));
    } else {
        g_dbus_method_invocation_return_dbus_error(invocation, refused, said.c_str());
    }
}

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

void publish(DuskvaleKeeper *object, const Known &known, const Verdict &verdict,
             const std::string &freeze_changed) {
    const std::string off = QuorumGuard::why_off(known.config, known.corosync);
    const std::string moving = known.moving ? Move::describe(known, *known.moving) : "";
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
    duskvale_keeper_set_version(object, DUSKVALE_VERSION);
    duskvale_keeper_set_local_node(object, known.local);
    duskvale_keeper_set_nodes(object, g_variant_builder_end(&nodes));
    duskvale_keeper_set_last_heard(object, g_variant_builder_end(&heard));
    duskvale_keeper_set_verdict(object, levels.at(static_cast<size_t>(verdict.level)));
    duskvale_keeper_set_causes(object, g_variant_builder_end(&causes));
    duskvale_keeper_set_master(object, known.current.master_node);
    duskvale_keeper_set_frozen(object, known.current.frozen_node);
    duskvale_keeper_set_freeze_changed(object, duskvale_utf8(freeze_changed.c_str()).c_str());
    duskvale_keeper_set_stay(object, known.stay_off.empty() ? "on" : known.stay_off.c_str());
    duskvale_keeper_set_quorum_guard(object, off.empty() ? "on" : off.c_str());
    duskvale_keeper_set_moving(object, duskvale_utf8(moving.c_str()).c_str());
    duskvale_keeper_set_failed_steps(object, known.failed_steps);
    duskvale_keeper_set_master_changes(object, known.master_changes);
    duskvale_keeper_set_aborts(object, known.aborts);
}

} // namespace keeper
