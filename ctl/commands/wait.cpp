#include "ctl/ask/bus.h"
#include "ctl/ask/settle.h"
#include "ctl/commands/commands.h"
#include "ctl/print/nodes.h"
#include "ctl/print/text.h"

#include <cstdio>

namespace ctl {

namespace {

bool fits(const std::string &wanted, const client::Snapshot &now) {
    if (now.master_node == 0) {
        return false;
    }
    return wanted == "stable" || (wanted == "master") == now.is_master;
}

int timed_out(const std::string &wanted, const std::string &state) {
    std::fprintf(stderr, "duskvalectl: timed out waiting for %s: %s\n", wanted.c_str(),
                 state.c_str());
    return Exit::timed_out;
}

/* Until the daemon is there and can be read; a problem that waiting does not solve; or nothing at
   the deadline. */
std::optional<Result<client::Snapshot>> wait_for_daemon(Bus &bus, const Deadline &deadline) {
    Result<client::Snapshot> snapshot = bus.read();
    while (!snapshot && snapshot.problem().is_absence()) {
        const std::optional<News> news = bus.next(deadline);
        if (!news) {
            return std::nullopt;
        }
        if (news->is<BusLost>()) {
            return Result<client::Snapshot>(bus_closed());
        }
        if (news->is<DaemonAppeared>()) {
            snapshot = bus.read();
        }
    }
    return snapshot;
}

/* Nothing when the keeper sees the steps of no node run; else what is not done. Without a keeper
   only this node is known. */
std::string unsettled_elsewhere(Bus &bus) {
    const KeeperView keeper = bus.read_keeper();
    if (!keeper) {
        std::fprintf(stderr, "duskvalectl: %s: the run steps of other nodes are not known\n",
                     keeper.why_not.c_str());
        return "";
    }
    for (const client::KeeperNode &node : keeper->nodes) {
        if (node.member && node.heard && node.steps == "running") {
            return "the run steps of " + node_text(node) + " are not done";
        }
    }
    return "";
}

/* Until it is stable on all nodes. */
int wait_for_others(Bus &bus, const Deadline &deadline) {
    constexpr double look_again_s = 0.1;
    while (true) {
        const std::string state = unsettled_elsewhere(bus);
        if (state.empty()) {
            return Exit::ok;
        }
        if (passed(deadline)) {
            return timed_out("stable", state);
        }
        bus.next(after(look_again_s));
    }
}

int wait_for(const std::string &wanted, Bus &bus, const Deadline &deadline) {
    while (true) {
        const std::optional<Result<client::Snapshot>> now = wait_for_daemon(bus, deadline);
        if (!now) {
            return timed_out(wanted, "the daemon is not running");
        }
        if (!*now) {
            return report(now->problem());
        }
        client::Snapshot last = **now;
        SettleRequest request;
        request.deadline = deadline;
        request.election = wanted == "stable";
        if (!fits(wanted, last)) {
            request.effect = [&](const client::Announcement &announcement) {
                if (const auto *master = std::get_if<client::NewMaster>(&announcement)) {
                    last.master_node = master->node;
                    last.is_master = master->node == last.local_node;
                }
                return fits(wanted, last);
            };
        }
        const Settling settling = settle(bus, **now, request);
        if (settling.outcome == Settled::bus_lost) {
            return report(settling.problem);
        }
        if (settling.outcome == Settled::timed_out) {
            return timed_out(wanted, !settling.effect_seen ? "it did not happen"
                                     : settling.steps_running
                                         ? "this node's run steps are not done"
                                         : "no second has passed without news");
        }
        /* Otherwise the role was lost again meanwhile, or the daemon restarts. */
        if (settling.outcome == Settled::yes && fits(wanted, settling.last)) {
            return wanted == "stable" ? wait_for_others(bus, deadline) : int{Exit::ok};
        }
        if (settling.outcome == Settled::vanished && !settling.problem.is_absence()) {
            return report(settling.problem);
        }
    }
}

} // namespace

int command_wait(const Options &options) {
    /* A time-out of a second must leave room for a second of rest. */
    const double room = options.word == "stable" ? 0.1 : 0;
    const Deadline deadline = options.timeout ? after(*options.timeout + room) : std::nullopt;
    Bus bus;
    if (const std::optional<Problem> problem = bus.connect()) {
        return report(*problem);
    }
    bus.listen();
    return wait_for(options.word, bus, deadline);
}

} // namespace ctl
