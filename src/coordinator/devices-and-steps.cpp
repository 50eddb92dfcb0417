/*
 * The coordinator's side of the step runner and of the device inventory: steps are logged and
 * announced on the bus, device events travel through the cluster before anyone announces them.
 */
#include "coordinator/private.h"

#include "base/log.h"
#include "dbus/notify.h"

#include <sys/wait.h>

#include <string>

namespace {

const char *action_word(gboolean is_master) {
    return is_master != FALSE ? "start" : "stop";
}

const char *change_word(int32_t added) {
    return added != 0 ? "ADDED" : "REMOVED";
}

/* A raw wait status in words; empty for one that wait(2) does not describe. */
std::string describe_wait_status(int status) {
    if (WIFEXITED(status)) {
        return "exited, status " + std::to_string(WEXITSTATUS(status));
    }
    if (WIFSIGNALED(status)) {
        return "killed by signal " + std::to_string(WTERMSIG(status));
    }
    if (WIFSTOPPED(status)) {
        return "stopped by signal " + std::to_string(WSTOPSIG(status));
    }
    return WIFCONTINUED(status) ? "continued" : "";
}

} // namespace

int run_step_start(gpointer user_data, const char *step, gboolean is_master, GPid pid) {
    auto *self = static_cast<DuskvaleCorosync *>(user_data);
    DUSKVALE_INFO("---------- started %s (is_master=%d) (pid = %d)\n", step, is_master, pid);
    duskvale_notify_runstep_begin(self->priv->dbus, step, action_word(is_master));
    return 0;
}

void run_step_end(gpointer user_data, const char *step, gboolean is_master, GPid pid, int status) {
    auto *self = static_cast<DuskvaleCorosync *>(user_data);
    DUSKVALE_INFO("---------- ended %s (is_master=%d) (pid = %d, status = %d)\n", step, is_master,
                  pid, status);
    if (status != 0) {
        DUSKVALE_ERR("%s(pid = %d): %s %s -- %s\n", __func__, pid, step,
                     is_master ? "master" : "slave", describe_wait_status(status).c_str());
    }
    duskvale_notify_runstep_end(self->priv->dbus, step, action_word(is_master), status);
}

int run_steps_done(gpointer user_data, int errors) {
    auto *self = static_cast<DuskvaleCorosync *>(user_data);
    DUSKVALE_INFO("---------- run steps done (%d errors)\n", errors);
    if (errors != 0) {
        DUSKVALE_ERR("%s: done with %d errors\n", __func__, errors);
    }
    duskvale_notify_runsteps_done(self->priv->dbus, static_cast<uint32_t>(errors));
    return 0;
}

int dvlc_lumacrate_notify(gint32 total, const DuskvaleLumacrateInfo *info, gboolean added,
                          const char *devpath, gpointer user_data) {
    COORDINATOR_DBG("total %d: %s [%s] @%s (%s)\n", total, change_word(added), info->hardware_id,
                    info->location, devpath);
    return multicast(static_cast<DuskvaleCorosync *>(user_data),
                     encode_lumacrate({total, added, info->hardware_id, info->location, devpath}));
}

int dvlc_lumacrate_count(gint32 count, gpointer) {
    COORDINATOR_DBG("total Lumacrates = %d\n", count);
    return 0;
}

int message_handler_lumacrate_notify(DuskvaleCorosync *self, uint32_t sender, unsigned int mtype,
                                     MessageView message) {
    const auto event = decode_lumacrate(message);
    if (!event) {
        return discard_malformed(sender, mtype, message);
    }
    DUSKVALE_INFO("From %u: now %d Lumacrates: %s [%s] @%s (%s)\n", sender, event->count,
                  change_word(event->added), event->hardware_id, event->location, event->devpath);
    duskvale_notify_lumacrate_hotplug(self->priv->dbus, sender, event->count, event->added,
                                      event->hardware_id, event->location, event->devpath);
    return 0;
}

/* What the caller says of the device is only shown: the cluster learns what sysfs says. */
int do_lumacrate_hotplug(gpointer user_data, gboolean added, const char *devpath,
                         const char *hardware_id, const char *location) {
    auto *self = static_cast<DuskvaleCorosync *>(user_data);
    COORDINATOR_DBG("%s: %s [%s] @%s %s\n", __func__, change_word(added), hardware_id, location,
                    devpath);
    duskvale_lumacrate_event(self->priv->lumacrates, added, devpath);
    return 0;
}

int do_lumacrates_count(gpointer user_data) {
    const gint32 count =
        duskvale_lumacrate_count(static_cast<DuskvaleCorosync *>(user_data)->priv->lumacrates);
    COORDINATOR_DBG("got %d\n", count);
    return count;
}
