#include "ctl/ask/problem.h"

#include "ctl/exit-status.h"
#include "ctl/print/text.h"
#include "ctl/program.h"

#include "base/paths.h"

#include <algorithm>

namespace ctl {

namespace {

constexpr ProblemSpec problems[] = {
    {ProblemKind::daemon_not_running, Exit::not_running, "daemon-not-running",
     "the daemon is not running (no process owns " DUSKVALE_BUS_NAME ")",
     "systemctl status " DUSKVALE_IDENT ", and duskvalectl why"},
    {ProblemKind::no_corosync, Exit::no_corosync, "corosync-missing",
     "the daemon is not running, and neither is corosync, which it needs",
     "systemctl start corosync: the daemon's unit follows"},
    {ProblemKind::bus_unreachable, Exit::bus_unreachable, "bus-unreachable",
     "the system bus cannot be reached", "systemctl status dbus; a container may have none"},
    {ProblemKind::not_permitted, Exit::not_permitted, "not-permitted",
     "the policy of the system bus does not allow this",
     "use sudo; members of the group adm can query without it"},
    {ProblemKind::no_answer, Exit::timed_out, "no-answer",
     "the daemon is running but does not answer: it hangs or gets no processor time",
     "systemctl status " DUSKVALE_IDENT "; a request may still take effect"},
    {ProblemKind::failed, Exit::failed, "failed", "the daemon gave an answer that does not fit",
     "systemctl restart " DUSKVALE_IDENT ", if it was upgraded since it started"},
};

} // namespace

const ProblemSpec &spec_of(const Problem &problem) {
    return *std::ranges::find(problems, problem.kind, &ProblemSpec::kind);
}

std::string problem_text(const Problem &problem) {
    return spec_of(problem).text + (problem.detail.empty() ? "" : ": " + problem.detail);
}

int report(const Problem &problem) {
    const ProblemSpec &spec = spec_of(problem);
    return complain(spec.exit_status, problem_text(problem) + "\nNext: " + spec.advice);
}

Problem daemon_absent() {
    return {corosync_is_there() ? ProblemKind::daemon_not_running : ProblemKind::no_corosync, ""};
}

Problem bus_closed() {
    return {ProblemKind::bus_unreachable, "it closed the connection"};
}

Problem classify_call(const GError *error) {
    const auto is = [error](int code) {
        return g_error_matches(error, G_DBUS_ERROR, code) != FALSE;
    };
    /* The last is what the bus answers for a daemon that ended while it had the call. */
    if (is(G_DBUS_ERROR_SERVICE_UNKNOWN) || is(G_DBUS_ERROR_NAME_HAS_NO_OWNER) ||
        is(G_DBUS_ERROR_NO_REPLY)) {
        return daemon_absent();
    }
    if (is(G_DBUS_ERROR_ACCESS_DENIED)) {
        return {ProblemKind::not_permitted, ""};
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
