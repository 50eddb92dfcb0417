#include "keeper/edge/log.h"

#include "keeper/paths.h"

#include <glib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>

namespace keeper {

namespace {

constexpr sockaddr_un journal{AF_UNIX, "/run/systemd/journal/socket"};
std::atomic<unsigned> lost_lines{0};

bool journal_takes(int fd, int priority, const std::string &text) {
    const std::string fields = "PRIORITY=" + std::to_string(priority) +
                               "\nSYSLOG_IDENTIFIER=" DUSKVALE_KEEPER_IDENT "\nMESSAGE=" + text +
                               "\n";
    return sendto(fd, fields.data(), fields.size(), MSG_NOSIGNAL | MSG_DONTWAIT,
                  reinterpret_cast<const sockaddr *>(&journal), sizeof journal) >= 0;
}

GLogWriterOutput write_for_glib(GLogLevelFlags level, const GLogField *fields, gsize count,
                                gpointer) noexcept {
    for (const GLogField *field = fields; field != fields + count; field++) {
        if (g_str_equal(field->key, "MESSAGE") && level <= G_LOG_LEVEL_WARNING) {
            log_line(LOG_ERR, static_cast<const char *>(field->value));
        }
    }
    return G_LOG_WRITER_HANDLED;
}

} // namespace

void log_line(int priority, std::string text) {
    static const int fd =
        getenv("JOURNAL_STREAM") == nullptr ? -1 : socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        fprintf(stderr, "%s\n", text.c_str());
        return;
    }
    std::ranges::replace(text, '\n', ' ');
    const unsigned lost = lost_lines.exchange(0);
    const std::string before = "the journal did not take " + std::to_string(lost) + " lines";
    if ((lost > 0 && !journal_takes(fd, LOG_WARNING, before)) ||
        !journal_takes(fd, priority, text)) {
        lost_lines += lost + 1;
    }
}

void give_up(const std::string &reason) {
    log_line(LOG_ERR, reason + ", ending");
    _exit(EXIT_FAILURE);
}

void log_for_glib() {
    g_log_set_writer_func(write_for_glib, nullptr, nullptr);
}

} // namespace keeper
