/*
 * What the coordinator is linked with in place of its four sub-objects, the GLib timeouts and the
 * log. The objects themselves are empty: everything is kept in the node whose code runs.
 */
#include "oracle.h"

#include "base/gobject-macros.h"
#include "base/log.h"
#include "dbus/notify.h"

#include <glib/gprintf.h>
#include <gtest/gtest.h>

#include <cinttypes>
#include <cstdarg>

using sim::current;

bool sim::debug_lines = false;
int sim::live_objects = 0;

#define FAKE_OBJECT(Type, type)                                                                    \
    struct _##Type {                                                                               \
        GObject parent_instance;                                                                   \
    };                                                                                             \
    G_DEFINE_TYPE(Type, type, G_TYPE_OBJECT)                                                       \
    static void type##_init(Type *) {}                                                             \
    static void type##_class_init(Type##Class *) {}

FAKE_OBJECT(DuskvaleGCpg, dvcpg_glib)
FAKE_OBJECT(DuskvaleDBus, duskvale_dbus)
FAKE_OBJECT(DuskvaleRun, duskvale_run)
FAKE_OBJECT(DuskvaleLumacrates, duskvale_lumacrates)

template <typename Type>
static Type *make(GType type, const char *function) {
    if (current->fails == function) {
        return nullptr;
    }
    auto *object = static_cast<GObject *>(g_object_new(type, nullptr));
    ++sim::live_objects;
    g_object_weak_ref(
        object, [](gpointer, GObject *) { --sim::live_objects; }, nullptr);
    return reinterpret_cast<Type *>(object);
}

int duskvale_debug(int, int) noexcept {
    return sim::debug_lines || sim::trace ? 1 : 0;
}

int duskvale_debug_print(int priority, const char *format, ...) noexcept {
    va_list arguments;
    va_start(arguments, format);
    g_autofree char *line = nullptr;
    const int length = g_vasprintf(&line, format, arguments);
    va_end(arguments);
    current->log.append(line, static_cast<size_t>(length)); /* a line may hold a NUL */
    if (sim::trace) {
        printf("%8" PRIu64 " node %u: %s", current->cluster->now, current->id, line);
    }
    if (current->cluster->oracle != nullptr && priority != LOG_DEBUG) {
        current->cluster->oracle->logged(*current, line);
    }
    return 0;
}

/* GLib's timeouts, put in their place by the linker. */
extern "C" {
guint __wrap_g_timeout_add(guint interval, GSourceFunc function, gpointer data);
guint __wrap_g_timeout_add_seconds(guint interval, GSourceFunc function, gpointer data);
gboolean __wrap_g_source_remove(guint tag);
}

guint __wrap_g_timeout_add(guint interval, GSourceFunc function, gpointer data) {
    static guint last_id = 0;
    current->timers[++last_id] = {current->cluster->now + interval, interval, function, data};
    return last_id;
}

guint __wrap_g_timeout_add_seconds(guint interval, GSourceFunc function, gpointer data) {
    return __wrap_g_timeout_add(interval * 1000, function, data);
}

gboolean __wrap_g_source_remove(guint tag) {
    EXPECT_EQ(current->timers.erase(tag), 1U) << "removes a source that does not exist";
    return TRUE;
}

/* The group */

DuskvaleGCpg *dvcpg_glib_new(const char *group_name, const DuskvaleGCpgAgents *agents,
                             gpointer user_data) {
    EXPECT_STREQ(group_name, "duskvale");
    current->group = agents;
    current->user_data = user_data;
    return make<DuskvaleGCpg>(dvcpg_glib_get_type(), __func__);
}

gboolean dvcpg_glib_register(DuskvaleGCpg *, GMainContext *) {
    if (current->fails == __func__) {
        return FALSE;
    }
    current->cluster->change([] { current->member = true; });
    return TRUE;
}

uint32_t duskvale_glib_local_nodeid(DuskvaleGCpg *) {
    return current->id;
}

cs_error_t dvcpg_glib_send_message(DuskvaleGCpg *, const void *buffer, size_t length) {
    const std::string message(static_cast<const char *>(buffer), length);
    if (current->refuses && current->refuses(message[0])) {
        if (current->cluster->oracle != nullptr) {
            current->cluster->oracle->refused(*current, message[0]);
        }
        return CS_ERR_TRY_AGAIN;
    }
    current->outbox.emplace_back(message, current->handling);
    return CS_OK;
}

/* The bus object */

DuskvaleDBus *duskvale_dbus_new(uint32_t local_nodeid, const DuskvaleDBusAgents *agents, gpointer) {
    EXPECT_EQ(local_nodeid, current->id);
    current->requests = agents;
    return make<DuskvaleDBus>(duskvale_dbus_get_type(), __func__);
}

gboolean duskvale_dbus_register(DuskvaleDBus *) {
    return current->fails != __func__;
}

gint32 duskvale_get_preferred_master(DuskvaleDBus *) {
    return current->preferred ? 1 : 0;
}

uint32_t duskvale_get_frozen_master(DuskvaleDBus *) {
    return current->frozen;
}

const char *duskvale_get_frozen_master_reason(DuskvaleDBus *) {
    return current->reason ? current->reason->c_str() : nullptr;
}

G_GNUC_PRINTF(1, 2) static gboolean signal_sent(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    g_autofree char *text = g_strdup_vprintf(format, arguments);
    va_end(arguments);
    current->signals.emplace_back(text);
    return TRUE;
}

gboolean duskvale_notify_new_master(DuskvaleDBus *, uint32_t nodeid) {
    current->in_transition = true;
    current->master = nodeid;
    return signal_sent("NewMaster %u", nodeid);
}

gboolean duskvale_notify_frozen_master(DuskvaleDBus *, uint32_t nodeid, const char *reason) {
    current->frozen = nodeid;
    current->reason = nodeid != 0 ? std::optional<std::string>(reason) : std::nullopt;
    return signal_sent("FrozenMaster %u '%s'", nodeid, reason);
}

gboolean duskvale_notify_joined(DuskvaleDBus *, uint32_t nodeid, size_t node_count) {
    current->node_count = node_count;
    return signal_sent("Joined %u, now %zu", nodeid, node_count);
}

gboolean duskvale_notify_left(DuskvaleDBus *, uint32_t nodeid, size_t node_count) {
    current->node_count = node_count;
    return signal_sent("Left %u, now %zu", nodeid, node_count);
}

gboolean duskvale_notify_keep_alive(DuskvaleDBus *, uint32_t nodeid) {
    return signal_sent("KeepAlive %u", nodeid);
}

gboolean duskvale_notify_got_message(DuskvaleDBus *, const char *text) {
    return signal_sent("GotMessage '%s'", text);
}

gboolean duskvale_notify_lumacrate_hotplug(DuskvaleDBus *, uint32_t nodeid, gint32, gboolean,
                                           const char *, const char *, const char *) {
    return signal_sent("LumacrateHotplug %u", nodeid);
}

gboolean duskvale_notify_runstep_begin(DuskvaleDBus *, const char *step, const char *) {
    return signal_sent("RunstepBegin %s", step);
}

gboolean duskvale_notify_runstep_end(DuskvaleDBus *, const char *step, const char *, gint32) {
    return signal_sent("RunstepEnd %s", step);
}

gboolean duskvale_notify_runsteps_done(DuskvaleDBus *, uint32_t errors) {
    current->in_transition = false;
    return signal_sent("RunstepsDone %u", errors);
}

/* The runner has no step to run and so is done at once; the role is noted among the signals. */

DuskvaleRun *duskvale_run_new(const char *run_dir, const DuskvaleRunAgents *agents, gpointer) {
    EXPECT_STREQ(run_dir, "/usr/share/duskvale/run.d");
    current->steps = agents;
    return current->runner = make<DuskvaleRun>(duskvale_run_get_type(), __func__);
}

gboolean duskvale_run_start(DuskvaleRun *, gboolean is_master) {
    EXPECT_TRUE(current->in_transition) << "steps begin before the master is announced";
    signal_sent("%s", is_master != FALSE ? "start" : "stop");
    current->steps->steps_done(current->user_data, 0);
    return TRUE;
}

/* No devices. */

DuskvaleLumacrates *duskvale_lumacrates_new(const DuskvaleLumacratesAgents *agents,
                                            gpointer user_data) {
    agents->count(0, user_data);
    return make<DuskvaleLumacrates>(duskvale_lumacrates_get_type(), __func__);
}

gint32 duskvale_lumacrate_count(DuskvaleLumacrates *) {
    return 0;
}

void duskvale_lumacrate_event(DuskvaleLumacrates *, gboolean, const char *) {}

void duskvale_lumacrates_destroy(DuskvaleLumacrates *self) {
    g_object_unref(self);
}
