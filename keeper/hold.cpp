#include "keeper/hold.h"

#include "keeper/edge/corosync.h"
#include "keeper/edge/log.h"
#include "keeper/policy/policies.h"

#include <syslog.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <cstdlib>

namespace keeper {

namespace {

/* As long as a start may usually take. Then it fails, so that a boot goes on, and the unit starts
 * again. */
constexpr Duration hold_limit{90'000};
constexpr const char *extend_start_limit = "EXTEND_TIMEOUT_USEC=100000000";

/* Not exit(3): a thread may wait for corosync without end. */
[[noreturn]] void end(int status, int priority, const std::string &text) {
    log_line(priority, "QUORUM: " + text);
    _exit(status);
}

struct Hold {
    Known known; /* what is known so far */
    Time began = now();
    bool waiting = false;

    void take(const Input &input);
};

void Hold::take(const Input &input) {
    if (const auto *read = std::get_if<CorosyncRead>(&input)) {
        known.corosync = *read;
        return;
    }
    known.quorum = std::get<QuorumChanged>(input);
    const std::string off = QuorumGuard::why_off(known);
    if (!known.quorum.connected) {
        end(EXIT_SUCCESS, LOG_WARNING, "corosync cannot be asked, the daemon starts");
    }
    if (!off.empty()) {
        end(EXIT_SUCCESS, LOG_INFO, "the daemon starts with or without it: " + off);
    }
    if (known.quorum.quorate) {
        end(EXIT_SUCCESS, LOG_INFO, "there, the daemon starts after " + seconds(now() - began));
    }
    if (!waiting) {
        waiting = true;
        log_line(LOG_WARNING, "QUORUM: not there, the start of the daemon waits for at most " +
                                  seconds(hold_limit));
        sd_notify(0, extend_start_limit);
    }
}

gboolean on_limit(gpointer) noexcept {
    end(EXIT_FAILURE, LOG_ERR,
        "not there after " + seconds(hold_limit) + ", the daemon does not start");
}

} // namespace

void hold_for_quorum(const Config &config) {
    Hold hold;
    hold.known.config = config;
    g_timeout_add(static_cast<guint>(hold_limit.count()), on_limit, nullptr);
    follow_corosync([&hold](const Input &input) { hold.take(input); });
    g_main_loop_run(g_main_loop_new(nullptr, FALSE));
    _exit(EXIT_SUCCESS);
}

} // namespace keeper
