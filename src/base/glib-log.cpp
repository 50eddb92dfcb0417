#include "base/glib-log.h"

#include <glib.h>

#include <string>

static void log_some(const gchar *domain, GLogLevelFlags level, const gchar *message,
                     gpointer) noexcept {
    constexpr gint64 minute_us = gint64{60} * G_USEC_PER_SEC;
    constexpr unsigned most = 10;
    static gint64 begun = 0;
    static unsigned written = 0;
    if ((level & (G_LOG_LEVEL_ERROR | G_LOG_LEVEL_CRITICAL)) != 0) {
        g_log_default_handler(domain, level, message, nullptr);
        return;
    }
    const gint64 now = g_get_monotonic_time();
    if (written == 0 || now - begun >= minute_us) {
        begun = now;
        written = 0;
    }
    if (written < most) {
        const char *note = ++written == most ? " (others are left out for up to a minute)" : "";
        const std::string text = std::string(message) + note;
        g_log_default_handler(domain, level, text.c_str(), nullptr);
    }
}

void duskvale_limit_glib_log() {
    g_log_set_default_handler(log_some, nullptr);
}
