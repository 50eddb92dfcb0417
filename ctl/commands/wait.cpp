#include "ctl/ask/bus.h"
#include "ctl/ask/settle.h"
#include "ctl/commands/commands.h"
#include "ctl/print/nodes.h"
#include "ctl/print/text.h"

namespace ctl {

namespace {

bool fits(const std::string &wanted, const client::Snapshot &now) {
    return now.master_node != 0 && (wanted == "stable" || (wanted == "master") == now.is_master);
}

int timed_out(const std::string &wanted, const std::string &state) {
    return complain(Exit::timed_out, "timed out waiting for " + wanted + ": " + state);
}

/* Until the daemon is there and can be read; nothing at the deadline. Throws a Problem that waiting
   does not solve. */
std::optional<client::Snapshot> wait_for_daemon(Bus &bus, const Deadline &deadline) {
    Result<client::Snapshot> snapshot = bus.read();
    while (!snapshot && snapshot.problem().is_absence()) {
        const std::optional<News> news = bus.next(deadline);
        if (!news) {
            return std::nullopt;
        }
        if (news->is<BusLost>()) {
            throw bus_closed();
        }
        if (news->is<DaemonAppeared>()) {
            snapshot = bus.read();
        }
    }
    return std::move(snapshot).value();
}

/* Nothing when the keeper sees the steps of no node run; else what is not done. Without a keeper
   only this node is known. */
std::string unsettled_elsewhere(Bus &bus) {
    const KeeperView keeper = bus.read_keeper();
    if (!keeper) {
        complain(Exit::ok, keeper.why_not + ": the run steps of other nodes are not known");
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
        const std::optional<client::Snapshot> now = wait_for_daemon(bus, deadline);
        if (!now) {
            return timed_out(wanted, "the daemon is not running");
        }
        client::Snapshot last = *now;
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
        try {
            const Settling settling = settle(bus, *now, request);
            if (!settling.in_time) {
                return timed_out(wanted, !settling.effect_seen ? "it did not happen"
                                         : settling.steps_running
                                             ? "this node's run steps are not done"
                                             : "no second has passed without news");
            }
            /* The role may have been lost again meanwhile. */
            if (fits(wanted, settling.last)) {
                return wanted == "stable" ? wait_for_others(bus, deadline) : Exit::ok;
            }
        } catch (const Problem &problem) {
            if (!problem.is_absence()) {
                throw;
            }
        }
    }
}

} // namespace

int command_wait(const Options &options) {
    /* A time-out of a second must leave room for a second of rest. */
    const double room = options.word == "stable" ? 0.1 : 0;
    const Deadline deadline = options.timeout ? after(*options.timeout + room) : std::nullopt;
    Bus bus;
    bus.connect();
    bus.listen();
    return wait_for(options.word, bus, deadline);
}

} // namespace ctl
