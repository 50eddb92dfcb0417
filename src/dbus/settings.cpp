#include "dbus/settings.h"

#include "base/paths.h"
#include "dbus/private.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

struct CloseFile {
    /* The value in memory counts, whether or not it reached the disk: a result of the close would
       change nothing. */
    void operator()(FILE *file) const { fclose(file); }
};
using File = std::unique_ptr<FILE, CloseFile>;

struct FreeBuffer {
    void operator()(char *buffer) const { free(buffer); }
};

/* The number at the start of the file, 0 when there is none, and skips the white space behind it.
   It is read wide and cut to 32 bits, so that a node id means the same written signed or not. */
gint32 scan_number(FILE *file) {
    long long number = 0;
    /* NOLINTNEXTLINE(cert-err34-c): strtoll(3) does not leave the file where the number ends. */
    return fscanf(file, "%lld\n", &number) == 1 ? static_cast<gint32>(number) : 0;
}

/* The next line without its newline, in memory to be freed with g_free(); null when there is none,
   with errno as getline(3) left it. */
gchar *read_line(FILE *file) {
    char *raw = nullptr;
    size_t capacity = 0;
    errno = 0;
    const ssize_t length = getline(&raw, &capacity, file);
    const std::unique_ptr<char, FreeBuffer> buffer(raw);
    if (length == -1) {
        return nullptr;
    }
    if (length > 0 && raw[length - 1] == '\n') {
        raw[length - 1] = '\0';
    }
    return g_strdup(raw);
}

ssize_t text_length(const char *text) {
    return static_cast<ssize_t>(strlen(text));
}

} // namespace

void read_preferred_master(DuskvaleDBus *self) {
    const File file(fopen(DUSKVALE_PREFERRED_MASTER_FILE, "re"));
    self->priv->preferred_master = file ? scan_number(file.get()) : 0;
}

void read_frozen_master(DuskvaleDBus *self) {
    DuskvaleDBusPrivate *priv = self->priv;
    ssize_t length = 0;
    priv->frozen_master = 0;
    if (const File file{fopen(DUSKVALE_FROZEN_MASTER_FILE, "re")}) {
        priv->frozen_master = scan_number(file.get());
        gchar *reason = read_line(file.get());
        if (reason == nullptr && errno != 0) {
            perror("failed reading failure-reason (using empty)");
        }
        length = reason != nullptr ? text_length(reason) : -1;
        g_free(priv->frozen_master_reason);
        priv->frozen_master_reason = reason != nullptr ? reason : g_strdup("");
    }
    const char *reason = priv->frozen_master_reason != nullptr ? priv->frozen_master_reason : "";
    DBUS_DBG("node %u -- reason = (%zd) '%s'\n", static_cast<guint32>(priv->frozen_master), length,
             reason);
}

void duskvale_set_preferred_master(DuskvaleDBus *self) {
    const File file(fopen(DUSKVALE_PREFERRED_MASTER_FILE, "we"));
    if (!file) {
        DUSKVALE_ERR("Failed opening %s for writing: %s\n", DUSKVALE_PREFERRED_MASTER_FILE,
                     strerror(errno));
        return;
    }
    fprintf(file.get(), "%d\n", self->priv->preferred_master);
}

void update_frozen_master(DuskvaleDBus *self) {
    const DuskvaleDBusPrivate *priv = self->priv;
    if (priv->frozen_master == 0) {
        if (unlink(DUSKVALE_FROZEN_MASTER_FILE) != 0 && errno != ENOENT) {
            DUSKVALE_ERR("Failed removing %s: %s\n", DUSKVALE_FROZEN_MASTER_FILE, strerror(errno));
        }
        DBUS_DBG("removed frozen_master\n");
        return;
    }
    if (const File file{fopen(DUSKVALE_FROZEN_MASTER_FILE, "we")}) {
        fprintf(file.get(), "%d\n%s\n", priv->frozen_master, priv->frozen_master_reason);
    } else {
        DUSKVALE_ERR("Failed opening %s for writing: %s\n", DUSKVALE_FROZEN_MASTER_FILE,
                     strerror(errno));
    }
    DBUS_DBG("written node %u -- reason = (%zd) '%s'\n", static_cast<guint32>(priv->frozen_master),
             text_length(priv->frozen_master_reason), priv->frozen_master_reason);
}
