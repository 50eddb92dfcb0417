#include "keeper/edge/log.h"

#include <glib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>

namespace keeper {

static bool journal_takes(int priority, const std::string &text) {
    const std::string line = "<" + std::to_string(priority) + ">" + text + "\n";
    return send(STDERR_FILENO, line.data(), line.size(), MSG_NOSIGNAL | MSG_DONTWAIT) > 0;
}

void log_line(int priority, std::string text) {
    static std::atomic<unsigned> lost_lines{0};
    std::ranges::replace(text, '\n', ' ');
    if (getenv("JOURNAL_STREAM") == nullptr) {
        fprintf(stderr, "%s\n", text.c_str());
        return;
    }
    const unsigned lost = lost_lines.exchange(0);
    const std::string before = "the journal did not take " + std::to_string(lost) + " lines";
    if ((lost > 0 && !journal_takes(LOG_WARNING, before)) || !journal_takes(priority, text)) {
        lost_lines += lost + 1;
    }
}

void give_up(const std::string &reason) {
    log_line(LOG_ERR, reason + ", ending");
    _exit(EXIT_FAILURE);
}

void log_for_glib() {
    const auto write = [](const gchar *, GLogLevelFlags level, const gchar *message,
                          gpointer) noexcept {
        /* Below that it says, for one, that the unit's sandbox forbids another scheduler. */
        if (level < G_LOG_LEVEL_MESSAGE) {
            log_line(LOG_ERR, message);
        }
    };
    g_log_set_default_handler(write, nullptr);
}

} // namespace keeper
