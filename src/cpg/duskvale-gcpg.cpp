#include "cpg/duskvale-gcpg.h"

#include "base/gobject-macros.h"
#include "base/log.h"

#include <cstdlib>

/* g_source_new() allocates the whole of it; GLib knows the first member only. */
struct DvcpgSource {
    GSource source;
    GPollFD pollfd;
};

struct DuskvaleGCpgPrivate {
    const char *group_name;
    duskvale_cpg *cpg;
    DvcpgSource *source;
    const DuskvaleGCpgAgents *agents;
    gpointer user_data;
};

struct _DuskvaleGCpg {
    GObject parent_instance;
    DuskvaleGCpgPrivate *priv;
};

G_DEFINE_TYPE_WITH_PRIVATE(DuskvaleGCpg, dvcpg_glib, G_TYPE_OBJECT)

constexpr gushort hung_up = G_IO_ERR | G_IO_HUP;
constexpr gushort ready = G_IO_IN | hung_up;

static void dvcpg_glib_finalize(GObject *object) noexcept {
    DUSKVALE_DBG(LogCategory::cpg_glib, "\n");
    DuskvaleGCpg *self = DUSKVALE_GCPG(object);
    if (self->priv->source != nullptr) {
        g_source_destroy(&self->priv->source->source);
        g_source_unref(&self->priv->source->source);
    }
    /* The connection stays open: leaving the group is the end of the process. */
    G_OBJECT_CLASS(dvcpg_glib_parent_class)->finalize(object);
}

static void dvcpg_glib_init(DuskvaleGCpg *self) {
    DUSKVALE_DBG(LogCategory::cpg_glib, "\n");
    self->priv = static_cast<DuskvaleGCpgPrivate *>(dvcpg_glib_get_instance_private(self));
}

static void dvcpg_glib_class_init(DuskvaleGCpgClass *klass) {
    DUSKVALE_DBG(LogCategory::cpg_glib, "\n");
    G_OBJECT_CLASS(klass)->finalize = dvcpg_glib_finalize;
}

static gboolean dvcpg_prepare(GSource *, gint *timeout) noexcept {
    DUSKVALE_DBG(LogCategory::cpg_glib, "\n");
    *timeout = -1;
    return FALSE;
}

static gboolean dvcpg_check(GSource *source) noexcept {
    const gushort revents = reinterpret_cast<DvcpgSource *>(source)->pollfd.revents;
    DUSKVALE_DBG(LogCategory::cpg_glib, "events=0x%X\n", revents);
    return (revents & ready) != 0;
}

static gboolean dvcpg_dispatch(GSource *, GSourceFunc callback, gpointer user_data) noexcept {
    DUSKVALE_DBG(LogCategory::cpg_glib, "\n");
    if (callback == nullptr) {
        return G_SOURCE_REMOVE;
    }
    return callback(user_data);
}

static GSourceFuncs dvcpg_source_funcs = {
    dvcpg_prepare, dvcpg_check, dvcpg_dispatch, nullptr, nullptr, nullptr,
};

static gboolean dvcpg_callback(gpointer user_data) noexcept {
    DUSKVALE_DBG(LogCategory::cpg_glib, "\n");
    const DuskvaleGCpgPrivate *priv = DUSKVALE_GCPG(user_data)->priv;
    const cs_error_t result = duskvale_cpg_dispatch(priv->cpg);
    /* A hang-up alone is not the end as long as the library still has events to hand out. Once it
       also fails no event can come any more, while the descriptor stays ready: going on would spin
       and log without end. */
    if (result != CS_OK && (priv->source->pollfd.revents & hung_up) != 0) {
        DUSKVALE_ERR("corosync is gone (cpg_dispatch: %d) -- ending\n", result);
        g_source_destroy(&priv->source->source);
        exit(EXIT_FAILURE);
    }
    return G_SOURCE_CONTINUE;
}

DuskvaleGCpg *dvcpg_glib_new(const char *group_name, const DuskvaleGCpgAgents *agents,
                             gpointer user_data) {
    DUSKVALE_DBG(LogCategory::cpg_glib, "\n");
    auto *self = DUSKVALE_GCPG(g_object_new(DUSKVALE_TYPE_GCPG, nullptr));
    self->priv->group_name = group_name;
    self->priv->agents = agents;
    self->priv->user_data = user_data;
    return self;
}

gboolean dvcpg_glib_register(DuskvaleGCpg *self, GMainContext *context) {
    DUSKVALE_DBG(LogCategory::cpg_glib, "\n");
    DuskvaleGCpgPrivate *priv = self->priv;
    if (duskvale_cpg_new(&priv->cpg, priv->group_name, priv->agents, priv->user_data) != CS_OK) {
        DUSKVALE_ERR("Failed instanciating cpg\n");
        return FALSE;
    }
    const int fd = duskvale_cpg_fd(priv->cpg);
    if (fd < 0) {
        DUSKVALE_ERR("Failed getting cpg file-descriptor\n");
        return FALSE;
    }
    GSource *source = g_source_new(&dvcpg_source_funcs, sizeof(DvcpgSource));
    if (source == nullptr) {
        DUSKVALE_ERR("Failed creating new dvcpg source\n");
        return FALSE;
    }
    priv->source = reinterpret_cast<DvcpgSource *>(source);
    GPollFD *pollfd = &priv->source->pollfd;
    pollfd->fd = fd;
    pollfd->events = ready;
    DUSKVALE_DBG(LogCategory::cpg_glib, "fd=%d events=0x%X\n", pollfd->fd, pollfd->events);
    g_source_add_poll(source, pollfd);
    g_source_attach(source, context);
    g_source_set_callback(source, dvcpg_callback, self, nullptr);
    return TRUE;
}

cs_error_t dvcpg_glib_send_message(DuskvaleGCpg *self, const void *buffer, size_t length) {
    /* cpg_mcast_joined() only reads, but an iovec has no const. */
    const iovec whole = {.iov_base = const_cast<void *>(buffer), .iov_len = length};
    return duskvale_cpg_send(self->priv->cpg, &whole, 1);
}

uint32_t duskvale_glib_local_nodeid(DuskvaleGCpg *self) {
    DUSKVALE_DBG(LogCategory::cpg_glib, "\n");
    return duskvale_cpg_local_nodeid(self->priv->cpg);
}
