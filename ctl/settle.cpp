#include "ctl/settle.h"

#include <algorithm>

namespace ctl {

namespace {

class Settler {
public:
    Settler(Bus &the_bus, const Snapshot &before, const SettleRequest &the_request)
        : bus(the_bus), request(the_request) {
        result.last = before;
        result.effect_seen = request.effect == nullptr;
        steps_running = before.in_transition;
        stir();
    }

    Settling run() {
        while (true) {
            const bool at_rest = result.effect_seen && !steps_running;
            if (at_rest && !bus.has_news() && (!request.election || passed(quiet_from))) {
                if (confirm()) {
                    return finish(Settled::yes);
                }
                continue;
            }
            const bool rest_first = at_rest && request.election &&
                                    (!request.deadline || *quiet_from < *request.deadline);
            const std::optional<Notice> notice =
                bus.next(rest_first ? quiet_from : request.deadline);
            if (notice) {
                take(*notice);
            } else if (!rest_first) {
                return finish(Settled::timed_out);
            }
            if (lost) {
                return finish(*lost);
            }
        }
    }

private:
    /* Something happened that may mean an election. */
    void stir() { quiet_from = after(election_rest); }

    void take(const Notice &notice) {
        if (request.watcher) {
            request.watcher(notice);
        }
        if (request.effect && request.effect(notice)) {
            result.effect_seen = true;
        }
        switch (notice.kind) {
        case NoticeKind::new_master:
            steps_running = true;
            stir();
            break;
        case NoticeKind::frozen_master:
        case NoticeKind::joined:
        case NoticeKind::left:
            stir();
            break;
        case NoticeKind::step_begin:
            steps_running = true;
            result.step = notice.text;
            break;
        case NoticeKind::step_end:
            result.step.clear();
            result.steps++;
            result.failed += notice.status != 0 ? 1 : 0;
            break;
        case NoticeKind::steps_done:
            steps_running = false;
            result.step.clear();
            break;
        case NoticeKind::daemon_vanished:
            lost = Settled::vanished;
            result.problem = daemon_absent();
            break;
        case NoticeKind::bus_lost:
            lost = Settled::bus_lost;
            result.problem = {ProblemKind::bus_unreachable, "it closed the connection"};
            break;
        default:
            break;
        }
    }

    /*
     * Reads the state. The end of one sequence of steps may be the start of another, for a role
     * that was remembered meanwhile, and InTransition does not tell; but whatever the daemon
     * announced together with the end is in the queue once it has answered.
     */
    bool confirm() {
        const Result<Snapshot> snapshot = bus.read();
        if (!snapshot) {
            lost = Settled::vanished;
            result.problem = snapshot.problem();
            return true;
        }
        result.last = *snapshot;
        steps_running = snapshot->in_transition;
        return !steps_running && !bus.has_news();
    }

    Settling finish(Settled outcome) {
        result.outcome = lost.value_or(outcome);
        return result;
    }

    Bus &bus;
    const SettleRequest &request;
    Settling result;
    Deadline quiet_from;
    bool steps_running = false;
    std::optional<Settled> lost;
};

} // namespace

Settling settle(Bus &bus, const Snapshot &before, const SettleRequest &request) {
    return Settler(bus, before, request).run();
}

} // namespace ctl
