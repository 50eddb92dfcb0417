/*
 * What the coordinator is linked with in place of its four sub-objects, the GLib timeouts and the
 * log. The objects themselves are empty: everything is kept in the node whose code runs.
 */
#include "oracle.h"

#include "base/gobject-macros.h"
#include "base/log.h"
#include "client/overloaded.h"
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
    return current->add_timer(interval, [=] { return function(data); });
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
    current->outbox.push_back({.cause = current->handling,
                               .sender = current->id,
                               .message = message,
                               .frozen = current->bus.frozen_node});
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
    return current->bus.preferred ? 1 : 0;
}

uint32_t duskvale_get_frozen_master(DuskvaleDBus *) {
    return current->bus.frozen_node;
}

const char *duskvale_get_frozen_master_reason(DuskvaleDBus *) {
    return current->bus.frozen_reason.empty() ? nullptr : current->bus.frozen_reason.c_str();
}

static std::string in_words(const client::Announcement &announcement) {
    const auto number = [](auto value) { return " " + std::to_string(value); };
    const auto quoted = [](const std::string &text) { return " '" + text + "'"; };
    return std::visit(
        client::Overloaded{
            [&](const client::NewMaster &a) { return "NewMaster" + number(a.node); },
            [&](const client::FrozenMaster &a) {
                return "FrozenMaster" + number(a.node) + quoted(a.reason);
            },
            [&](const client::Joined &a) { return "Joined" + number(a.node) + number(a.members); },
            [&](const client::Left &a) { return "Left" + number(a.node) + number(a.members); },
            [&](const client::KeepAlive &a) { return "KeepAlive" + number(a.node); },
            [&](const client::Text &a) { return "GotMessage" + quoted(a.text); },
            [&](const client::Hotplug &a) {
                return "LumacrateHotplug" + number(a.node) + number(a.devices) + number(a.added) +
                       quoted(a.hardware_id) + quoted(a.location) + quoted(a.devpath);
            },
            [&](const client::StepBegin &a) { return "RunstepBegin " + a.step + " " + a.action; },
            [&](const client::StepEnd &a) {
                return "RunstepEnd " + a.step + " " + a.action + number(a.wait_status);
            },
            [&](const client::StepsDone &a) { return "RunstepsDone" + number(a.failed); }},
        announcement);
}

static gboolean announce(const client::Announcement &announcement) {
    current->log += "    " + in_words(announcement) + "\n";
    if (current->listener) {
        current->listener(announcement);
    }
    return TRUE;
}

gboolean duskvale_notify_new_master(DuskvaleDBus *, uint32_t nodeid) {
    if (current->cluster->oracle != nullptr) {
        current->cluster->oracle->applied(*current, nodeid);
    }
    current->bus.in_transition = true;
    current->bus.master_node = nodeid;
    current->bus.is_master = nodeid == current->id;
    return announce(client::NewMaster{nodeid});
}

gboolean duskvale_notify_frozen_master(DuskvaleDBus *, uint32_t nodeid, const char *reason) {
    current->bus.frozen_node = nodeid;
    current->bus.frozen_reason = nodeid != 0 ? reason : "";
    return announce(client::FrozenMaster{nodeid, reason});
}

gboolean duskvale_notify_joined(DuskvaleDBus *, uint32_t nodeid, size_t node_count) {
    current->bus.members = static_cast<int>(node_count);
    return announce(client::Joined{nodeid, static_cast<uint32_t>(node_count)});
}

gboolean duskvale_notify_left(DuskvaleDBus *, uint32_t nodeid, size_t node_count) {
    current->bus.members = static_cast<int>(node_count);
    return announce(client::Left{nodeid, static_cast<uint32_t>(node_count)});
}

gboolean duskvale_notify_keep_alive(DuskvaleDBus *, uint32_t nodeid) {
    return announce(client::KeepAlive{nodeid});
}

gboolean duskvale_notify_got_message(DuskvaleDBus *, const char *text) {
    return announce(client::Text{text});
}

gboolean duskvale_notify_lumacrate_hotplug(DuskvaleDBus *, uint32_t nodeid, gint32 total,
                                           gboolean added, const char *hardware_id,
                                           const char *location, const char *devpath) {
    return announce(client::Hotplug{nodeid, static_cast<uint32_t>(total), added != FALSE,
                                    hardware_id, location, devpath});
}

gboolean duskvale_notify_runstep_begin(DuskvaleDBus *, const char *step, const char *action) {
    return announce(client::StepBegin{step, action});
}

gboolean duskvale_notify_runstep_end(DuskvaleDBus *, const char *step, const char *action,
                                     gint32 status) {
    return announce(client::StepEnd{step, action, status});
}

gboolean duskvale_notify_runsteps_done(DuskvaleDBus *, uint32_t errors) {
    current->bus.in_transition = false;
    return announce(client::StepsDone{errors});
}

/* The runner: a sequence in virtual time, and the last role that was asked for meanwhile. */

DuskvaleRun *duskvale_run_new(const char *run_dir, const DuskvaleRunAgents *agents, gpointer) {
    EXPECT_STREQ(run_dir, "/usr/share/duskvale/run.d");
    current->step_agents = agents;
    return current->runner = make<DuskvaleRun>(duskvale_run_get_type(), __func__);
}

static void run_steps(gboolean is_master);

static void run_step(gboolean is_master, size_t done, int errors) {
    constexpr GPid pid = 7;
    sim::Node &node = *current;
    const DuskvaleRunAgents &agents = *node.step_agents;
    if (done == node.steps.size()) {
        node.running = false;
        agents.steps_done(node.user_data, errors);
        if (node.pending) {
            run_steps(*std::exchange(node.pending, std::nullopt));
        }
        return;
    }
    const sim::Step step = node.steps[is_master != FALSE ? done : node.steps.size() - 1 - done];
    agents.step_start(node.user_data, step.name.c_str(), is_master, pid);
    node.add_timer(step.ms, [=, &node, &agents] {
        agents.step_end(node.user_data, step.name.c_str(), is_master, pid, step.wait_status);
        run_step(is_master, done + 1, errors + (step.wait_status != 0 ? 1 : 0));
        return G_SOURCE_REMOVE;
    });
}

static void run_steps(gboolean is_master) {
    current->running = true;
    current->log += is_master != FALSE ? "    start\n" : "    stop\n";
    run_step(is_master, 0, 0);
}

gboolean duskvale_run_start(DuskvaleRun *, gboolean is_master) {
    EXPECT_TRUE(current->bus.in_transition) << "steps begin before the master is announced";
    if (current->runs) {
        current->runs(is_master != FALSE);
        return TRUE;
    }
    if (current->running) {
        current->pending = is_master;
    } else {
        run_steps(is_master);
    }
    return TRUE;
}

/* The inventory: `devpath` is the number of a device. */

DuskvaleLumacrates *duskvale_lumacrates_new(const DuskvaleLumacratesAgents *agents,
                                            gpointer user_data) {
    current->device_agents = agents;
    agents->count(duskvale_lumacrate_count(nullptr), user_data);
    return make<DuskvaleLumacrates>(duskvale_lumacrates_get_type(), __func__);
}

gint32 duskvale_lumacrate_count(DuskvaleLumacrates *) {
    return static_cast<gint32>(current->devices.size());
}

void duskvale_lumacrate_event(DuskvaleLumacrates *, gboolean added, const char *devpath) {
    const DuskvaleLumacrateInfo none{};
    const DuskvaleLumacrateInfo &info = added != FALSE ? current->devices.back() : none;
    current->device_agents->notify(duskvale_lumacrate_count(nullptr), &info, added, devpath,
                                   current->user_data);
}

void duskvale_lumacrates_destroy(DuskvaleLumacrates *self) {
    g_object_unref(self);
}
