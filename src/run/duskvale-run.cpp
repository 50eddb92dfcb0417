#include "run/duskvale-run.h"

#include "base/gobject-macros.h"
#include "base/log.h"

#include <glob.h>
#include <signal.h>
#include <sys/types.h>

struct DuskvaleRunPrivate {
    const DuskvaleRunAgents *agents;
    gchar *run_dir;
    glob_t glob_space; /* the steps of the sequence in progress */
    gpointer user_data;
    gint32 idx; /* the step in progress; -1 past the end of a slave's sequence */
    GPid pid;
    guint32 child_watch;
    guint32 child_timer;
    gboolean running;
    gboolean is_master;
    gint32 errors;
    gboolean pending;
    gboolean pending_is_master;
};

struct _DuskvaleRun {
    GObject parent_instance;
    DuskvaleRunPrivate *priv;
};

constexpr guint step_timeout_ms = 240000;
constexpr size_t pattern_size = 4096;

G_DEFINE_TYPE_WITH_PRIVATE(DuskvaleRun, duskvale_run, G_TYPE_OBJECT)

/* Removes the source whose id is in `id`, if any. */
static void remove_source(guint32 &id) {
    if (id != 0) {
        g_source_remove(id);
        id = 0;
    }
}

static void release_steps(DuskvaleRunPrivate *priv) {
    globfree(&priv->glob_space);
    priv->glob_space = {};
}

static void duskvale_run_finalize(GObject *object) noexcept {
    DUSKVALE_DBG(LogCategory::run, "\n");
    g_return_if_fail(DUSKVALE_IS_RUN(object));
    DuskvaleRunPrivate *priv = DUSKVALE_RUN(object)->priv;
    g_return_if_fail(priv != NULL);

    /* Released in mid-sequence: the step that runs is left to finish by itself, but its end must
       not reach a runner that is gone. */
    remove_source(priv->child_watch);
    remove_source(priv->child_timer);
    release_steps(priv);
    g_free(priv->run_dir);
    G_OBJECT_CLASS(duskvale_run_parent_class)->finalize(object);
}

static void duskvale_run_init(DuskvaleRun *self) {
    DUSKVALE_DBG(LogCategory::run, "\n");
    self->priv = static_cast<DuskvaleRunPrivate *>(duskvale_run_get_instance_private(self));
}

static void duskvale_run_class_init(DuskvaleRunClass *klass) {
    DUSKVALE_DBG(LogCategory::run, "\n");
    G_OBJECT_CLASS(klass)->finalize = duskvale_run_finalize;
}

/* Ends the sequence, and starts the one that was asked for meanwhile. */
static void run_steps_done(DuskvaleRun *self) {
    DuskvaleRunPrivate *priv = self->priv;
    DUSKVALE_DBG(LogCategory::run, "Finished (%s)\n", priv->is_master ? "master" : "slave");
    if (priv->child_watch != 0) {
        DUSKVALE_ERR("a child watch active (removing) (pid=%d)\n", priv->pid);
        remove_source(priv->child_watch);
    }
    if (priv->child_timer != 0) {
        DUSKVALE_ERR("a child timer active (removing) (pid=%d)\n", priv->pid);
        remove_source(priv->child_timer);
    }
    priv->idx = 0;
    priv->running = FALSE;
    release_steps(priv);
    if (priv->agents != nullptr && priv->agents->steps_done != nullptr) {
        priv->agents->steps_done(priv->user_data, priv->errors);
    }
    if (priv->pending) {
        priv->pending = FALSE;
        DUSKVALE_INFO("Run pending transition (is_master=%d)\n", priv->pending_is_master);
        duskvale_run_start(self, priv->pending_is_master);
    }
}

static gboolean child_timeout(gpointer user_data) noexcept {
    DuskvaleRunPrivate *priv = DUSKVALE_RUN(user_data)->priv;
    priv->child_timer = 0;
    if (priv->pid != 0) {
        DUSKVALE_ERR("child_timeout(pid=%d)\n", priv->pid);
        kill(priv->pid, SIGTERM);
    }
    /* The watch stays: the sequence goes on when the child has really ended. */
    return G_SOURCE_REMOVE;
}

static void child_watch_callback(GPid pid, gint status, gpointer user_data) noexcept;

/*
 * Spawns the step at idx, or ends the sequence when idx is past it. FALSE when the step could not
 * be spawned and the caller has to advance: a caller's loop, since a directory may hold thousands
 * of such files and a call for each would nest as deep.
 */
static gboolean run_next(DuskvaleRun *self) {
    DuskvaleRunPrivate *priv = self->priv;
    if (priv->idx < 0 || static_cast<size_t>(priv->idx) >= priv->glob_space.gl_pathc) {
        run_steps_done(self);
        return TRUE;
    }
    gchar *step = priv->glob_space.gl_pathv[priv->idx];
    DUSKVALE_DBG(LogCategory::run, "running: %s (%d)\n", step, priv->is_master);

    g_autofree gchar *action = g_strdup(priv->is_master ? "start" : "stop");
    gchar *argv[] = {step, action, nullptr};
    g_autoptr(GError) error = nullptr;
    if (!g_spawn_async(".", argv, nullptr, G_SPAWN_DO_NOT_REAP_CHILD, nullptr, nullptr, &priv->pid,
                       &error)) {
        DUSKVALE_ERR("%s\n", error->message);
        priv->pid = 0;
        priv->child_watch = 0;
        return FALSE;
    }
    priv->child_watch = g_child_watch_add(priv->pid, child_watch_callback, self);
    if (priv->agents != nullptr && priv->agents->step_start != nullptr) {
        priv->agents->step_start(priv->user_data, step, priv->is_master, priv->pid);
    }
    priv->child_timer = g_timeout_add(step_timeout_ms, child_timeout, self);
    return TRUE;
}

/* Goes on to the next step that can be spawned, or to the end of the sequence. */
static void run_step_advance(DuskvaleRun *self) {
    DuskvaleRunPrivate *priv = self->priv;
    do {
        DUSKVALE_DBG(LogCategory::run, "idx=%d\n", priv->idx);
        if (!priv->running) {
            run_steps_done(self);
            return;
        }
        priv->idx += priv->is_master ? 1 : -1;
    } while (!run_next(self));
}

static void child_watch_callback(GPid pid, gint status, gpointer user_data) noexcept {
    DuskvaleRun *self = DUSKVALE_RUN(user_data);
    DuskvaleRunPrivate *priv = self->priv;
    DUSKVALE_DBG(LogCategory::run, "child_watch_callback(pid=%d, status=%d)\n", pid, status);
    remove_source(priv->child_timer);
    priv->child_watch = 0; /* it fires once */
    g_spawn_close_pid(pid);
    if (pid != priv->pid) {
        DUSKVALE_ERR("%s: terminated pid (%d) != last run pid (%d)\n", __func__, pid, priv->pid);
    }
    if (status != 0) {
        priv->errors++;
    }
    if (priv->glob_space.gl_pathv == nullptr) {
        DUSKVALE_ERR("%s(%d, %d) -- empty glob_space -- ignore\n", __func__, pid, status);
        return;
    }
    if (priv->agents != nullptr && priv->agents->step_end != nullptr) {
        priv->agents->step_end(priv->user_data, priv->glob_space.gl_pathv[priv->idx],
                               priv->is_master, pid, status);
    }
    run_step_advance(self);
}

gboolean duskvale_run_start(DuskvaleRun *self, gboolean is_master) {
    DUSKVALE_DBG(LogCategory::run, "\n");
    DuskvaleRunPrivate *priv = self->priv;
    if (priv->running) {
        DUSKVALE_INFO("Already running -- remember pending transition (is_master=%d)\n", is_master);
        priv->pending_is_master = is_master;
        priv->pending = TRUE;
        return TRUE;
    }
    priv->running = TRUE;
    priv->errors = 0;
    priv->is_master = is_master;

    char pattern[pattern_size];
    g_snprintf(pattern, sizeof(pattern), "%s/%s", priv->run_dir, "*.run");
    const int result = glob(pattern, GLOB_ERR, nullptr, &priv->glob_space);
    if (result == 0) {
        priv->idx = is_master ? 0 : static_cast<gint32>(priv->glob_space.gl_pathc) - 1;
        if (!run_next(self)) {
            run_step_advance(self);
        }
        return TRUE;
    }
    if (result == GLOB_NOMATCH) {
        DUSKVALE_DBG(LogCategory::run, "No match (%s)\n", pattern);
    } else {
        DUSKVALE_ERR("Failed glob(%s): %d\n", pattern, result);
    }
    run_steps_done(self);
    return TRUE;
}

DuskvaleRun *duskvale_run_new(const char *run_dir, const DuskvaleRunAgents *agents,
                              gpointer user_data) {
    DUSKVALE_DBG(LogCategory::run, "\n");
    auto *self = DUSKVALE_RUN(g_object_new(DUSKVALE_TYPE_RUN, nullptr));
    self->priv->run_dir = g_strdup(run_dir);
    self->priv->agents = agents;
    self->priv->user_data = user_data;
    return self;
}
