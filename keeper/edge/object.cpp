#include "keeper/edge/object.h"

#include "keeper/edge/interface.h"
#include "keeper/paths.h"
#include "keeper/version.h"

#include "base/utf8.h"

#include <array>
#include <initializer_list>

namespace keeper {

namespace {

constexpr const char *refused = DUSKVALE_KEEPER_BUS_NAME ".Error.Refused";
/* Changes with every text of another keeper; who wants it reads it. */
constexpr const char *not_announced = "LastHeard";

/* By the values of their enumerations. */
constexpr std::array roles{"unknown", "master", "slave", "down"};
constexpr std::array quorums{"unknown", "yes", "no"};
constexpr std::array levels{"ok", "warning", "critical", "unknown"};

GVariant *text(const std::string &value) {
    return g_variant_new_string(duskvale_utf8(value.c_str()).c_str());
}

GVariant *flag(bool value) {
    return g_variant_new_boolean(value ? TRUE : FALSE);
}

guint64 microseconds(Time time) {
    return static_cast<guint64>(std::chrono::microseconds(time).count());
}

/* Of the type a{sv}; a field without a value is left out. */
GVariant *dictionary(std::initializer_list<std::pair<const char *, GVariant *>> fields) {
    GVariantDict dict;
    g_variant_dict_init(&dict, nullptr);
    for (const auto &[name, value] : fields) {
        if (value != nullptr) {
            g_variant_dict_insert_value(&dict, name, value);
        }
    }
    return g_variant_dict_end(&dict);
}

/* `make` gives a new variant for each item, or null for none. */
template <typename Items, typename Make>
GVariant *array(const char *type, const Items &items, Make make) {
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE(type));
    for (const auto &item : items) {
        if (GVariant *made = make(item)) {
            g_variant_builder_add_value(&builder, made);
        }
    }
    return g_variant_builder_end(&builder);
}

GVariant *variant_of(const NodeStatus &node) {
    return dictionary({
        {"Id", g_variant_new_uint32(node.id)},
        {"Name", text(node.name)},
        {"Role", text(roles.at(static_cast<size_t>(node.role)))},
        {"Steps", text(node.steps)},
        {"Step", text(node.step)},
        {"StepStatus", g_variant_new_int32(node.status)},
        {"Since", node.since ? g_variant_new_uint64(microseconds(*node.since)) : nullptr},
        {"Unfit", node.unfit ? text(*node.unfit) : nullptr},
        {"Quorum", text(quorums.at(static_cast<size_t>(node.quorum)))},
        {"Member", flag(node.member)},
        {"Listed", flag(node.listed)},
        {"Preferred", flag(node.preferred)},
        {"Leaving", flag(node.leaving)},
    });
}

GVariant *last_heard(const NodeStatus &node) {
    return node.heard ? g_variant_new("{ut}", node.id, microseconds(*node.heard)) : nullptr;
}

client::Variant properties_of(const Published &published) {
    return client::owned(dictionary({
        {"Version", text(DUSKVALE_VERSION)},
        {"LocalNode", g_variant_new_uint32(published.local)},
        {"Nodes", array("aa{sv}", published.nodes, variant_of)},
        {not_announced, array("a{ut}", published.nodes, last_heard)},
        {"Verdict", text(levels.at(static_cast<size_t>(published.verdict.level)))},
        {"Causes", array("as", published.verdict.causes, text)},
        {"Master", g_variant_new_uint32(published.master)},
        {"Frozen", g_variant_new_uint32(published.frozen)},
        {"FreezeChanged", text(published.freeze_changed)},
        {"Stay", text(published.stay)},
        {"QuorumGuard", text(published.quorum)},
        {"Moving", text(published.moving)},
        {"FailedSteps", g_variant_new_uint64(published.failed_steps)},
        {"MasterChanges", g_variant_new_uint64(published.master_changes)},
        {"Aborts", g_variant_new_uint64(published.aborts)},
    }));
}

/* GDBus lets in what the interface describes, so whatever is not named here is Prefer. */
Asked read_method(uint64_t id, const std::string &method, GVariant *arguments) {
    if (method == "HandOver") {
        return {id, Asked::HandOver{}};
    }
    if (method == "Fit") {
        return {id, Asked::Fit{}};
    }
    if (method == "Move") {
        guint32 node = 0;
        g_variant_get(arguments, "(u)", &node);
        return {id, Asked::Move{node == 0 ? std::nullopt : std::optional<NodeId>(node)}};
    }
    gboolean on = FALSE;
    g_variant_get(arguments, "(b)", &on);
    return {id, Asked::Prefer{on != FALSE}};
}

using NodeInfo = std::unique_ptr<GDBusNodeInfo, client::Release<g_dbus_node_info_unref>>;

} // namespace

Object::Object(GDBusConnection *bus_, Told told_)
    : bus(bus_), told(std::move(told_)), properties(properties_of({})) {
    const NodeInfo node(g_dbus_node_info_new_for_xml(keeper_interface_xml, nullptr));
    static const GDBusInterfaceVTable table{on_method, on_read, nullptr, {}};
    g_dbus_connection_register_object(bus, DUSKVALE_KEEPER_BUS_PATH, node->interfaces[0], &table,
                                      this, nullptr, nullptr);
}

void Object::on_method(GDBusConnection *, const gchar *, const gchar *, const gchar *,
                       const gchar *method, GVariant *arguments, GDBusMethodInvocation *invocation,
                       gpointer self) noexcept {
    auto *object = static_cast<Object *>(self);
    object->asked.emplace(object->next_id, invocation);
    object->told(read_method(object->next_id++, method, arguments));
}

void Object::answer(const Answer &answer) {
    const auto found = asked.extract(answer.id);
    if (found.empty()) {
        return;
    }
    const std::string said = duskvale_utf8(answer.text.c_str());
    if (answer.ok) {
        g_dbus_method_invocation_return_value(found.mapped(), g_variant_new("(s)", said.c_str()));
    } else {
        g_dbus_method_invocation_return_dbus_error(found.mapped(), refused, said.c_str());
    }
}

GVariant *Object::on_read(GDBusConnection *, const gchar *, const gchar *, const gchar *,
                          const gchar *property, GError **, gpointer self) noexcept {
    return g_variant_lookup_value(static_cast<Object *>(self)->properties.get(), property, nullptr);
}

void Object::publish(const Published &published) {
    if (last == published) {
        return;
    }
    last = published;
    const client::Variant before = std::exchange(properties, properties_of(published));
    GVariantBuilder changed;
    g_variant_builder_init(&changed, G_VARIANT_TYPE_VARDICT);
    GVariantIter iter;
    g_variant_iter_init(&iter, properties.get());
    const gchar *name = nullptr;
    GVariant *value = nullptr;
    bool any = false;
    while (g_variant_iter_loop(&iter, "{&sv}", &name, &value)) {
        const client::Variant old(g_variant_lookup_value(before.get(), name, nullptr));
        if (!g_str_equal(name, not_announced) && !g_variant_equal(old.get(), value)) {
            g_variant_builder_add(&changed, "{sv}", name, value);
            any = true;
        }
    }
    const client::Variant fields =
        client::owned(g_variant_new("(sa{sv}as)", DUSKVALE_KEEPER_BUS_NAME, &changed, nullptr));
    if (any) {
        g_dbus_connection_emit_signal(bus, nullptr, DUSKVALE_KEEPER_BUS_PATH,
                                      "org.freedesktop.DBus.Properties", "PropertiesChanged",
                                      fields.get(), nullptr);
    }
}

} // namespace keeper
