#include "keeper/hold.h"

#include "keeper/edge/corosync.h"
#include "keeper/edge/log.h"
#include "keeper/policy/policies.h"

#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <cstdlib>

namespace keeper {

/* As long as a start may usually take. Then it fails, so that a boot goes on, and the unit starts
 * again. */
constexpr unsigned limit_s = 90;
constexpr const char *extend_start_limit = "EXTEND_TIMEOUT_USEC=100000000";

/* Not exit(3): a thread may wait for corosync without end. */
[[noreturn]] static void end(int status, int priority, const std::string &text) {
    log_line(priority, "QUORUM: " + text);
    _exit(status);
}

static gboolean on_limit(gpointer) noexcept {
    end(EXIT_FAILURE, LOG_ERR, "still not there, the daemon does not start");
}

void repair_setting(const char *path, const std::string &text) {
    g_autofree gchar *found = nullptr;
    g_autoptr(GError) error = nullptr;
    if (text.empty() || !g_file_get_contents(path, &found, nullptr, nullptr)) {
        return;
    }
    gchar *end = nullptr;
    g_ascii_strtoll(found, &end, 10);
    if (end != found) {
        return;
    }
    g_file_set_contents(path, text.c_str(), -1, &error);
    log_line(LOG_WARNING, std::string("SETTINGS: ") + path + " did not begin with a number, " +
                              (error == nullptr ? "and has what the daemon announced last again"
                                                : error->message));
}

void hold_for_quorum(const Config &config) {
    bool waiting = false;
    g_timeout_add_seconds(limit_s, on_limit, nullptr);
    follow_corosync([&](const Input &input) {
        const auto corosync = std::get<Corosync>(input);
        const std::string off = QuorumGuard::why_off(config, corosync);
        if (!corosync.connected) {
            end(EXIT_SUCCESS, LOG_WARNING, "corosync cannot be asked, the daemon starts");
        } else if (!off.empty() || corosync.quorate) {
            end(EXIT_SUCCESS, LOG_INFO,
                "the daemon starts: " + (off.empty() ? "it is there" : "not waiting, " + off));
        } else if (!std::exchange(waiting, true)) {
            sd_notify(0, extend_start_limit);
            log_line(LOG_WARNING, "QUORUM: not there, the start of the daemon waits for at most " +
                                      std::to_string(limit_s) + " s");
        }
    });
    g_main_loop_run(g_main_loop_new(nullptr, FALSE));
    _exit(EXIT_SUCCESS);
}

} // namespace keeper
