#include "ctl/ask/problem.h"

#include "ctl/ask/corosync-probe.h"
#include "ctl/exit-status.h"

#include "base/paths.h"

#include <cstdio>

namespace ctl {

namespace {

struct Row {
    ProblemKind kind;
    int exit;
    const char *word;
    const char *text;
    const char *advice;
};

constexpr Row rows[] = {
    {ProblemKind::daemon_not_running, Exit::not_running, "daemon-not-running",
     "the daemon is not running (no process owns " DUSKVALE_BUS_NAME ")",
     "systemctl status " DUSKVALE_IDENT ", and duskvalectl why"},
    {ProblemKind::no_corosync, Exit::no_corosync, "corosync-missing",
     "the daemon is not running, and neither is corosync, which it needs",
     "systemctl start corosync: the daemon's unit follows"},
    {ProblemKind::bus_unreachable, Exit::bus_unreachable, "bus-unreachable",
     "the system bus cannot be reached", "systemctl status dbus; a container may have none"},
    {ProblemKind::not_permitted, Exit::not_permitted, "not-permitted",
     "the policy of the system bus does not let you ask this", "the same as root, with sudo"},
    {ProblemKind::no_answer, Exit::timed_out, "no-answer",
     "the daemon is running but does not answer: it is stopped or starved",
     "systemctl status " DUSKVALE_IDENT},
    {ProblemKind::failed, Exit::failed, "failed", "the daemon gave an answer that does not fit",
     "systemctl restart " DUSKVALE_IDENT ", if it was upgraded since it started"},
};

const Row &row_of(const Problem &problem) {
    const Row *row = rows;
    while (row->kind != problem.kind) {
        row++;
    }
    return *row;
}

} // namespace

const char *problem_word(const Problem &problem) {
    return row_of(problem).word;
}

std::string problem_text(const Problem &problem) {
    std::string text = row_of(problem).text;
    if (!problem.detail.empty()) {
        text += ": " + problem.detail;
    }
    return text;
}

const char *problem_advice(const Problem &problem) {
    return row_of(problem).advice;
}

int problem_exit(const Problem &problem) {
    return row_of(problem).exit;
}

int report(const Problem &problem) {
    std::fprintf(stderr, "duskvalectl: %s\nNext: %s\n", problem_text(problem).c_str(),
                 problem_advice(problem));
    return problem_exit(problem);
}

int report_fault(const std::string &fault) {
    std::fprintf(stderr, "duskvalectl: %s\n", fault.c_str());
    return Exit::failed;
}

Problem daemon_absent() {
    return {corosync_is_there() ? ProblemKind::daemon_not_running : ProblemKind::no_corosync, ""};
}

Problem bus_closed() {
    return {ProblemKind::bus_unreachable, "it closed the connection"};
}

Problem classify_call(const GError *error) {
    struct Meaning {
        int code;
        ProblemKind kind;
    };
    static constexpr Meaning meanings[] = {
        {G_DBUS_ERROR_SERVICE_UNKNOWN, ProblemKind::daemon_not_running},
        {G_DBUS_ERROR_NAME_HAS_NO_OWNER, ProblemKind::daemon_not_running},
        /* The bus answers so for a daemon that ended while it had the call. */
        {G_DBUS_ERROR_NO_REPLY, ProblemKind::daemon_not_running},
        {G_DBUS_ERROR_ACCESS_DENIED, ProblemKind::not_permitted},
        {G_DBUS_ERROR_AUTH_FAILED, ProblemKind::not_permitted},
        {G_DBUS_ERROR_TIMEOUT, ProblemKind::no_answer},
        {G_DBUS_ERROR_TIMED_OUT, ProblemKind::no_answer},
        {G_DBUS_ERROR_DISCONNECTED, ProblemKind::bus_unreachable},
    };
    for (const Meaning &meaning : meanings) {
        if (g_error_matches(error, G_DBUS_ERROR, meaning.code)) {
            return meaning.kind == ProblemKind::daemon_not_running ? daemon_absent()
                                                                   : Problem{meaning.kind, ""};
        }
    }
    if (g_error_matches(error, G_IO_ERROR, G_IO_ERROR_TIMED_OUT)) {
        return {ProblemKind::no_answer, ""};
    }
    if (g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CLOSED)) {
        return bus_closed();
    }
    return {ProblemKind::failed, error->message};
}

Problem classify_connection(const GError *error) {
    if (g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_AUTH_FAILED) ||
        g_error_matches(error, G_IO_ERROR, G_IO_ERROR_PERMISSION_DENIED)) {
        return {ProblemKind::not_permitted, error->message};
    }
    return {ProblemKind::bus_unreachable, error->message};
}

} // namespace ctl
