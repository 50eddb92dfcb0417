#include "ctl/bus.h"
#include "ctl/commands/commands.h"
#include "ctl/output.h"
#include "ctl/settle.h"

#include <cstdio>

namespace ctl {

namespace {

bool fits(const std::string &wanted, const Snapshot &now) {
    if (now.master_node == 0) {
        return false;
    }
    return wanted == "stable" || (wanted == "master") == now.is_master;
}

int timed_out(const std::string &wanted, const std::string &state) {
    std::fprintf(stderr, "duskvalectl: timed out waiting for %s: %s\n", wanted.c_str(),
                 state.c_str());
    return static_cast<int>(Exit::timed_out);
}

/* Until the daemon is there and can be read; a problem that waiting does not mend, or no state at
   the deadline. */
std::optional<Result<Snapshot>> wait_for_daemon(Bus &bus, const Deadline &deadline) {
    Result<Snapshot> snapshot = bus.read();
    while (!snapshot && snapshot.problem().is_absence()) {
        const std::optional<Notice> notice = bus.next(deadline);
        if (!notice) {
            return std::nullopt;
        }
        if (notice->kind == NoticeKind::bus_lost) {
            return Result<Snapshot>(
                Problem{ProblemKind::bus_unreachable, "it closed the connection"});
        }
        if (notice->kind == NoticeKind::daemon_appeared) {
            snapshot = bus.read();
        }
    }
    return snapshot;
}

int wait_for(const std::string &wanted, Bus &bus, const Deadline &deadline) {
    while (true) {
        const std::optional<Result<Snapshot>> now = wait_for_daemon(bus, deadline);
        if (!now) {
            return timed_out(wanted, "the daemon is not running");
        }
        if (!*now) {
            return report(now->problem());
        }
        Snapshot last = **now;
        SettleRequest request;
        request.deadline = deadline;
        request.election = wanted == "stable";
        if (!fits(wanted, last)) {
            request.effect = [&](const Notice &notice) {
                if (notice.kind == NoticeKind::new_master) {
                    last.master_node = notice.node;
                    last.is_master = notice.node == last.local_node;
                }
                return fits(wanted, last);
            };
        }
        const Settling settling = settle(bus, **now, request);
        if (settling.outcome == Settled::bus_lost) {
            return report(settling.problem);
        }
        if (settling.outcome == Settled::timed_out) {
            return timed_out(wanted, settling.effect_seen ? "this node's run steps are not done"
                                                          : "it did not happen");
        }
        /* Otherwise the role was lost again meanwhile, or the daemon restarts. */
        if (settling.outcome == Settled::yes && fits(wanted, settling.last)) {
            return static_cast<int>(Exit::ok);
        }
        if (settling.outcome == Settled::vanished && !settling.problem.is_absence()) {
            return report(settling.problem);
        }
    }
}

} // namespace

int command_wait(const Arguments &arguments) {
    const std::string &wanted = arguments.positional.front();
    if (wanted != "master" && wanted != "slave" && wanted != "stable") {
        return usage_fault(arguments, "wait takes master, slave or stable, not '" + wanted + "'");
    }
    Deadline deadline;
    if (arguments.has(Opt::timeout)) {
        const auto limit = parse_seconds(arguments, Opt::timeout);
        if (!limit) {
            return static_cast<int>(Exit::usage);
        }
        deadline = after(*limit);
    }
    Bus bus;
    if (const std::optional<Problem> problem = bus.connect()) {
        return report(*problem);
    }
    bus.listen();
    return wait_for(wanted, bus, deadline);
}

} // namespace ctl
