#include "devices/duskvale-lumacrates.h"

#include "base/gobject-macros.h"
#include "base/log.h"
#include "base/paths.h"

#include <fcntl.h>
#include <glob.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <span>

struct DuskvaleLumacratesPrivate {
    const DuskvaleLumacratesAgents *agents;
    gpointer user_data;
    glob_t glob_space; /* in use only within a scan */
    gint32 count;
};

struct _DuskvaleLumacrates {
    GObject parent_instance;
    DuskvaleLumacratesPrivate *priv;
};

enum : guint { PROP_LUMACRATE_COUNT = 1 };
constexpr const char *count_property = "lumacrate-count";
constexpr size_t path_size = 4096;

G_DEFINE_TYPE_WITH_PRIVATE(DuskvaleLumacrates, duskvale_lumacrates, G_TYPE_OBJECT)

GQuark duskvale_lumacrates_error_quark() noexcept {
    DUSKVALE_DBG(LogCategory::lumacrates, "\n");
    return g_quark_from_static_string("duskvale_lumacrates_error");
}

GType duskvale_lumacrates_error_get_type() noexcept {
    DUSKVALE_DBG(LogCategory::lumacrates, "\n");
    static const GEnumValue values[] = {
        {DUSKVALE_LUMACRATES_ERROR_GENERAL, "DUSKVALE_LUMACRATES_ERROR_GENERAL", "GeneralError"},
        {0, nullptr, nullptr},
    };
    static const GType type = g_enum_register_static("DuskvaleLumacratesError", values);
    return type;
}

static void duskvale_lumacrates_finalize(GObject *object) noexcept {
    DUSKVALE_DBG(LogCategory::lumacrates, "\n");
    g_return_if_fail(DUSKVALE_IS_LUMACRATES(object));
    DuskvaleLumacrates *dvlc = DUSKVALE_LUMACRATES(object);
    g_return_if_fail(dvlc->priv != NULL);
    G_OBJECT_CLASS(duskvale_lumacrates_parent_class)->finalize(object);
}

static void duskvale_lumacrates_get_property(GObject *object, guint id, GValue *value,
                                             GParamSpec *pspec) noexcept {
    DUSKVALE_DBG(LogCategory::lumacrates, "\n");
    if (id != PROP_LUMACRATE_COUNT) {
        DUSKVALE_ERR("Bad property id %d\n", static_cast<int>(id));
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
        return;
    }
    g_value_set_int(value, DUSKVALE_LUMACRATES(object)->priv->count);
}

static void duskvale_lumacrates_set_property(GObject *object, guint id, const GValue *value,
                                             GParamSpec *pspec) noexcept {
    if (id != PROP_LUMACRATE_COUNT) {
        DUSKVALE_ERR("Bad property id %d\n", static_cast<int>(id));
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
        return;
    }
    DuskvaleLumacratesPrivate *priv = DUSKVALE_LUMACRATES(object)->priv;
    priv->count = g_value_get_int(value);
    DUSKVALE_DBG(LogCategory::lumacrates, "lumacrate-count = %d\n", priv->count);
}

static void duskvale_lumacrates_init(DuskvaleLumacrates *self) {
    DUSKVALE_DBG(LogCategory::lumacrates, "\n");
    self->priv =
        static_cast<DuskvaleLumacratesPrivate *>(duskvale_lumacrates_get_instance_private(self));
}

static void duskvale_lumacrates_class_init(DuskvaleLumacratesClass *klass) {
    DUSKVALE_DBG(LogCategory::lumacrates, "\n");
    GObjectClass *object_class = G_OBJECT_CLASS(klass);
    object_class->finalize = duskvale_lumacrates_finalize;
    object_class->get_property = duskvale_lumacrates_get_property;
    object_class->set_property = duskvale_lumacrates_set_property;
    g_object_class_install_property(object_class, PROP_LUMACRATE_COUNT,
                                    g_param_spec_int(count_property, "Number of Lumacrates",
                                                     "Set/Get Lumacrates count", 0, G_MAXINT32, 0,
                                                     G_PARAM_READWRITE));
}

/*
 * Reads an attribute into `text`, without its trailing white space; what does not fit is cut.
 * Returns 0, or a negative errno with `text` empty.
 */
static int read_sysfs_attr(const char *dir, const char *name, std::span<char> text) {
    text[0] = '\0';
    char path[path_size];
    g_snprintf(path, sizeof(path), "%s/%s", dir, name);
    /* A report may name any path: one that leads to a pipe must not hold up the whole node. */
    const int fd = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) {
        const int error = errno;
        DUSKVALE_ERR("Failed opening '%s': %s\n", path, strerror(error));
        return -error;
    }
    /* One read: sysfs hands out an attribute whole, made new for each reading from its start. */
    const ssize_t got = read(fd, text.data(), text.size() - 1);
    const int error = errno;
    close(fd);
    if (got < 0) {
        DUSKVALE_ERR("Failed reading from '%s': %s\n", path, strerror(error));
        return -error;
    }
    auto end = static_cast<size_t>(got);
    text[end] = '\0';
    /* isspace is the POSIX locale's: nothing in the daemon sets another. */
    while (end > 0 && isspace(static_cast<unsigned char>(text[end - 1])) != 0) {
        text[--end] = '\0';
    }
    return 0;
}

static void read_lumacrate_info(const char *path, DuskvaleLumacrateInfo *info) {
    DUSKVALE_DBG(LogCategory::lumacrates, "%s\n", path);
    read_sysfs_attr(path, "location", info->location);
    read_sysfs_attr(path, "hardware_id", info->hardware_id);
}

/* One record per match of the scan in progress; null when memory ran out. */
static DuskvaleLumacrateInfo *read_inventory(const glob_t &matches) {
    DUSKVALE_DBG(LogCategory::lumacrates, "\n");
    auto *details = static_cast<DuskvaleLumacrateInfo *>(
        calloc(matches.gl_pathc, sizeof(DuskvaleLumacrateInfo)));
    if (details == nullptr) {
        DUSKVALE_ERR("Out of memory for Lumacrate info\n");
        return nullptr;
    }
    for (size_t i = 0; i < matches.gl_pathc; i++) {
        read_lumacrate_info(matches.gl_pathv[i], &details[i]);
    }
    return details;
}

/* Through the property, so that its change notification reaches the owner. */
static void set_property_lumacrate_count(DuskvaleLumacrates *self, gint32 count) {
    GValue value = G_VALUE_INIT;
    g_value_init(&value, G_TYPE_INT);
    g_value_set_int(&value, count);
    g_object_set_property(G_OBJECT(self), count_property, &value);
    g_value_unset(&value);
}

static void lumacrate_count_hook(DuskvaleLumacrates *self, GParamSpec *, gpointer) noexcept {
    const DuskvaleLumacratesPrivate *priv = self->priv;
    DUSKVALE_DBG(LogCategory::lumacrates, "%d\n", priv->count);
    if (priv->agents != nullptr && priv->agents->count != nullptr) {
        priv->agents->count(priv->count, priv->user_data);
    }
}

gint32 duskvale_lumacrates_inventory(DuskvaleLumacrates *self, DuskvaleLumacrateInfo **details) {
    DUSKVALE_DBG(LogCategory::lumacrates, "%s\n",
                 details != nullptr ? "(read-details)" : "(count-only)");
    DuskvaleLumacratesPrivate *priv = self->priv;
    const int result = glob(DUSKVALE_DEVICES_PATTERN, GLOB_ERR, nullptr, &priv->glob_space);
    if (result == GLOB_NOMATCH) {
        DUSKVALE_DBG(LogCategory::lumacrates, "No match (%s)\n", DUSKVALE_DEVICES_PATTERN);
    } else if (result != 0) {
        DUSKVALE_ERR("Failed glob(%s): %d\n", DUSKVALE_DEVICES_PATTERN, result);
        globfree(&priv->glob_space);
        return -1;
    }
    set_property_lumacrate_count(self, static_cast<gint32>(priv->glob_space.gl_pathc));
    if (details != nullptr) {
        *details = read_inventory(priv->glob_space);
    }
    globfree(&priv->glob_space);
    return priv->count;
}

void duskvale_lumacrates_inventory_free(DuskvaleLumacrates *, DuskvaleLumacrateInfo *details) {
    DUSKVALE_DBG(LogCategory::lumacrates, "\n");
    free(details);
}

gint32 duskvale_lumacrate_count(DuskvaleLumacrates *self) {
    return self->priv->count;
}

void duskvale_lumacrate_event(DuskvaleLumacrates *self, gboolean added, const char *devpath) {
    DUSKVALE_DBG(LogCategory::lumacrates, "\n");
    const DuskvaleLumacratesPrivate *priv = self->priv;
    /* A failed scan leaves the count as it was, and that is the total then: the peers could make
       nothing of -1. */
    duskvale_lumacrates_inventory(self, nullptr);
    const gint32 total = priv->count;

    if (priv->agents != nullptr && priv->agents->notify != nullptr) {
        DuskvaleLumacrateInfo info = {};
        if (added) {
            read_lumacrate_info(devpath, &info);
        }
        DUSKVALE_DBG(LogCategory::lumacrates, "%s [%s]\n", added ? "ADDED" : "REMOVED",
                     info.hardware_id);
        priv->agents->notify(total, &info, added, devpath, priv->user_data);
    }
    /* Once more after the announcement: the owner hears the count on both sides of it. */
    set_property_lumacrate_count(self, total);
}

DuskvaleLumacrates *duskvale_lumacrates_new(const DuskvaleLumacratesAgents *agents,
                                            gpointer user_data) {
    DUSKVALE_DBG(LogCategory::lumacrates, "\n");
    auto *self = DUSKVALE_LUMACRATES(g_object_new(DUSKVALE_TYPE_LUMACRATES, nullptr));
    self->priv->agents = agents;
    self->priv->user_data = user_data;
    g_signal_connect(self, "notify::lumacrate-count", G_CALLBACK(lumacrate_count_hook), nullptr);
    duskvale_lumacrates_inventory(self, nullptr);
    return self;
}

void duskvale_lumacrates_destroy(DuskvaleLumacrates *self) {
    DUSKVALE_DBG(LogCategory::lumacrates, "\n");
    g_object_unref(self);
}
