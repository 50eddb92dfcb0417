#include "ctl/snapshot.h"

namespace ctl {

namespace {

/* Reads one property after another; remembers the first that is missing or of another type. */
class Reader {
public:
    explicit Reader(GVariant *answer) { g_variant_get(answer, "(@a{sv})", &properties); }
    Reader(const Reader &) = delete;
    Reader &operator=(const Reader &) = delete;
    ~Reader() { g_variant_unref(properties); }

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
    uint32_t node(const char *name) { return static_cast<uint32_t>(number(name)); }
    bool flag(const char *name) {
        gboolean value = FALSE;
        look_up(name, "b", &value);
        return value != FALSE;
    }
    const std::string &missing() const { return first_missing; }

private:
    template <typename T>
    void look_up(const char *name, const char *type, T *value) {
        if (!g_variant_lookup(properties, name, type, value) && first_missing.empty()) {
            first_missing = name;
        }
    }

    GVariant *properties = nullptr;
    std::string first_missing;
};

} // namespace

Result<Snapshot> read_snapshot(GVariant *answer) {
    if (!g_variant_is_of_type(answer, G_VARIANT_TYPE("(a{sv})"))) {
        return Problem{ProblemKind::failed, "no list of properties"};
    }
    Reader reader(answer);
    Snapshot snapshot;
    snapshot.version = reader.text("Version");
    snapshot.local_node = reader.node("LocalNodeId");
    snapshot.master_node = reader.node("MasterNodeId");
    snapshot.frozen_node = reader.node("FrozenMaster");
    snapshot.frozen_reason = reader.text("FrozenMasterReason");
    snapshot.members = reader.number("NodeCount");
    snapshot.devices = reader.number("LumacratesCount");
    snapshot.is_master = reader.flag("IsMaster");
    snapshot.preferred = reader.flag("PreferredMaster");
    snapshot.in_transition = reader.flag("InTransition");
    if (!reader.missing().empty()) {
        return Problem{ProblemKind::failed, "it lacks the property " + reader.missing()};
    }
    return snapshot;
}

} // namespace ctl
