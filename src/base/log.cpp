#include "base/log.h"

#include <glib.h>

#include <strings.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace {

struct Facility {
    const char *name;
    int code;
};

constexpr int no_facility = -1;

/* The table of syslog.h itself also holds "mark", which no program logs under. */
constexpr std::array<Facility, 21> facility_names{{
    {"auth", LOG_AUTH},     {"authpriv", LOG_AUTHPRIV}, {"cron", LOG_CRON},
    {"daemon", LOG_DAEMON}, {"ftp", LOG_FTP},           {"kern", LOG_KERN},
    {"lpr", LOG_LPR},       {"mail", LOG_MAIL},         {"news", LOG_NEWS},
    {"security", LOG_AUTH}, {"syslog", LOG_SYSLOG},     {"user", LOG_USER},
    {"uucp", LOG_UUCP},     {"local0", LOG_LOCAL0},     {"local1", LOG_LOCAL1},
    {"local2", LOG_LOCAL2}, {"local3", LOG_LOCAL3},     {"local4", LOG_LOCAL4},
    {"local5", LOG_LOCAL5}, {"local6", LOG_LOCAL6},     {"local7", LOG_LOCAL7},
}};

/* Indexed by priority code. */
constexpr std::array<const char *, 8> priority_names{
    "emerg", "alert", "crit", "err", "warning", "notice", "info", "debug",
};

/* Where output goes: no_facility is standard error, anything else is syslog under that code. */
int32_t log_facility = no_facility;
int32_t debug_categories = 1;
int32_t debug_level = LOG_INFO;

using CommandText = std::array<char, 8192>;

} // namespace

int duskvale_debug_print(int priority, const char *format, ...) noexcept {
    va_list args;
    va_start(args, format);
    if (log_facility == no_facility) {
        vfprintf(stderr, format, args);
    } else {
        vsyslog(priority, format, args);
    }
    va_end(args);
    return 0;
}

int duskvale_debug(int level, int category) noexcept {
    if (((static_cast<uint32_t>(debug_categories) >> category) & 1U) == 0) {
        return 0;
    }
    return debug_level >= level ? 1 : 0;
}

int duskvale_debug_get_level() {
    return debug_level;
}

void duskvale_debug_set_level(int level) {
    debug_level = level;
}

int32_t duskvale_debug_get_categories() {
    return debug_categories;
}

void duskvale_debug_set_categories(int32_t mask) {
    debug_categories = mask;
}

int duskvale_debug_syslog(const char *ident, const char *facility_name) {
    for (const Facility &row : facility_names) {
        if (strcasecmp(row.name, facility_name) == 0) {
            log_facility = row.code;
        }
    }
    if (log_facility < 0) {
        DUSKVALE_ERR("Unknown syslog facility '%s'", facility_name);
        return -EINVAL;
    }
    openlog(ident, LOG_PID, log_facility);
    return 0;
}

int redirect_tosyslog(int fd, const char *facility_name, unsigned int priority, const char *tag) {
    if (priority >= priority_names.size()) {
        DUSKVALE_ERR("Priority code %d too large", static_cast<int>(priority));
        return -EINVAL;
    }
    const char *priority_name = priority_names.at(priority);
    if (priority_name == nullptr) {
        DUSKVALE_ERR("Bad priority code %d", static_cast<int>(priority));
        return -EINVAL;
    }

    CommandText command;
    snprintf(command.data(), command.size(), "logger -p '%s.%s' -t '%s'", facility_name,
             priority_name, tag);
    /* Never closed: the logger lives as long as this process. Not "we": where `fd` was closed at
       the start the pipe may become `fd` itself, and the programs that we start write to that. */
    FILE *pipe = popen(command.data(), "w");
    if (pipe == nullptr) {
        const int error = errno;
        DUSKVALE_ERR("Failed running '%s': %s", command.data(), strerror(error));
        return -error;
    }
    dup2(fileno(pipe), fd);
    return 0;
}

int duskvale_debug_redirect(const char *facility_name, const char *ident) {
    CommandText tag;
    snprintf(tag.data(), tag.size(), "%s[%d-%s]", ident, getpid(), "stdout");
    int result = redirect_tosyslog(STDOUT_FILENO, facility_name, LOG_INFO, tag.data());
    if (result < 0) {
        return result;
    }
    puts("redirected stdout");

    snprintf(tag.data(), tag.size(), "%s[%d-%s]", ident, getpid(), "stderr");
    result = redirect_tosyslog(STDERR_FILENO, facility_name, LOG_NOTICE, tag.data());
    if (result < 0) {
        return result;
    }
    fputs("redirected stderr\n", stderr);
    return 0;
}
