#include "ctl/ask/settle.h"

#include "client/overloaded.h"

namespace ctl {

using client::Overloaded;

namespace {

class Settler {
public:
    Settler(Bus &the_bus, const client::Snapshot &before, const SettleRequest &the_request)
        : bus(the_bus), request(the_request) {
        result.last = before;
        result.effect_seen = request.effect == nullptr;
        result.steps_running = before.in_transition;
        stir();
    }

    Settling run() {
        while (true) {
            const bool at_rest = result.effect_seen && !result.steps_running;
            if (at_rest && !bus.has_news() && (!request.election || passed(quiet_from))) {
                if (confirm()) {
                    return result;
                }
                continue;
            }
            const bool rest_first = at_rest && request.election &&
                                    (!request.deadline || *quiet_from < *request.deadline);
            const std::optional<News> news = bus.next(rest_first ? quiet_from : request.deadline);
            if (news) {
                take(*news);
            } else if (!rest_first) {
                result.in_time = false;
                return result;
            }
        }
    }

private:
    /* Something happened that may mean an election. */
    void stir() { quiet_from = after(election_rest_s); }

    void take(const News &news) {
        if (request.watcher) {
            request.watcher(news);
        }
        const client::Announcement *announcement = news.announcement();
        if (announcement != nullptr && request.effect && request.effect(*announcement)) {
            result.effect_seen = true;
        }
        if (announcement != nullptr) {
            follow(*announcement);
        } else if (news.is<DaemonVanished>()) {
            throw daemon_absent();
        } else if (news.is<BusLost>()) {
            throw bus_closed();
        }
    }

    void follow(const client::Announcement &announcement) {
        std::visit(Overloaded{
                       [this](const client::NewMaster &) {
                           result.steps_running = true;
                           stir();
                       },
                       [this](const client::FrozenMaster &) { stir(); },
                       [this](const client::Joined &) { stir(); },
                       [this](const client::Left &) { stir(); },
                       [this](const client::StepBegin &begin) {
                           result.steps_running = true;
                           result.step = begin.step;
                       },
                       [this](const client::StepEnd &end) {
                           result.step.clear();
                           result.steps++;
                           result.failed += end.wait_status != 0 ? 1 : 0;
                       },
                       [this](const client::StepsDone &) {
                           result.steps_running = false;
                           result.step.clear();
                       },
                       [](const auto &) {}, /* neither mastership nor a step */
                   },
                   announcement);
    }

    /*
     * Reads the state. The end of one sequence of steps may be the start of another, for a role
     * that was remembered meanwhile, and InTransition does not show it; but whatever the daemon
     * announced together with the end is in the queue once it has answered.
     */
    bool confirm() {
        result.last = bus.read().value();
        result.steps_running = result.last.in_transition;
        return !result.steps_running && !bus.has_news();
    }

    Bus &bus;
    const SettleRequest &request;
    Settling result;
    Deadline quiet_from;
};

} // namespace

Settling settle(Bus &bus, const client::Snapshot &before, const SettleRequest &request) {
    return Settler(bus, before, request).run();
}

} // namespace ctl
