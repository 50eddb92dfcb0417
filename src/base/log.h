/*
 * Every line the daemon logs passes through here: where output goes (standard error, or syslog(3)
 * once a facility has been opened), and whether a debug line is written at all.
 *
 * Single-threaded: the state is three plain integers, used on the main-loop thread only.
 */
#pragma once

#include <glib.h>
#include <syslog.h>

#include <cstdint>

/* The modules a debug line can belong to; the value is the bit in the mask of the option -d. */
enum class LogCategory : int {
    cpg = 1,
    cpg_glib = 2,
    dbus = 3,
    lumacrates = 4,
    duskvale = 5,
    run = 6,
};

/* The tag of `category` in a debug line, such as "CPG_GLIB". */
constexpr const char *duskvale_debug_tag(LogCategory category) noexcept {
    switch (category) {
    case LogCategory::cpg:
        return "CPG";
    case LogCategory::cpg_glib:
        return "CPG_GLIB";
    case LogCategory::dbus:
        return "DBUS";
    case LogCategory::lumacrates:
        return "LUMACRATES";
    case LogCategory::duskvale:
        return "DUSKVALE";
    case LogCategory::run:
        return "RUN";
    }
    return "";
}

/*
 * Writes one formatted text to standard error as it is (no time stamp, no added newline), or to
 * syslog with `priority` (LOG_EMERG to LOG_DEBUG, without facility bits). Always returns 0.
 * Use the macros below: they add the prefix of the line's kind and the calling function's name.
 */
int duskvale_debug_print(int priority, const char *format, ...) noexcept G_GNUC_PRINTF(2, 3);

/* The gate: 1 if a debug line of `category` (0 to 31) that asks for `level` may be written, else 0.
 */
int duskvale_debug(int level, int category) noexcept;

int duskvale_debug_get_level();
void duskvale_debug_set_level(int level);
int32_t duskvale_debug_get_categories();
void duskvale_debug_set_categories(int32_t mask);

/*
 * Switches output to syslog, for good, under the facility called `facility_name` ("local5"; case
 * does not count). `ident` is borrowed for the rest of the process's life, as openlog(3) asks.
 * Returns 0, or -EINVAL for an unknown name: then output stays on standard error.
 */
int duskvale_debug_syslog(const char *ident, const char *facility_name);

/*
 * Ties standard output (priority info) and standard error (priority notice) to logger(1) processes
 * that live as long as this process. Returns 0, or a negative errno of the first that failed; a
 * descriptor that was not tied keeps its target.
 */
int duskvale_debug_redirect(const char *facility_name, const char *ident);

/* One descriptor of the above; `priority` is a syslog priority code 0 to 7. */
int redirect_tosyslog(int fd, const char *facility_name, unsigned int priority, const char *tag);

/* The four kinds of line. The format is a literal; the newline is the caller's. */
#define DUSKVALE_ERR(format, ...)                                                                  \
    duskvale_debug_print(LOG_ERR, "ERR(%s):" format, __func__ __VA_OPT__(, ) __VA_ARGS__)
#define DUSKVALE_WARN(format, ...)                                                                 \
    duskvale_debug_print(LOG_WARNING, "WARN: " format __VA_OPT__(, ) __VA_ARGS__)
#define DUSKVALE_INFO(format, ...)                                                                 \
    duskvale_debug_print(LOG_INFO, "INFO: " format __VA_OPT__(, ) __VA_ARGS__)
#define DUSKVALE_DBG(category, format, ...)                                                        \
    do {                                                                                           \
        if (duskvale_debug(LOG_DEBUG, static_cast<int>(category)))                                 \
            duskvale_debug_print(LOG_DEBUG, "DBG(%s): %s: " format, duskvale_debug_tag(category),  \
                                 __func__ __VA_OPT__(, ) __VA_ARGS__);                             \
    } while (0)
