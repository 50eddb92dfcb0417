#include "ctl/ask/settle.h"

namespace ctl {

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
        const auto *begin = std::get_if<client::StepBegin>(&announcement);
        const auto *end = std::get_if<client::StepEnd>(&announcement);
        const bool applied = std::holds_alternative<client::NewMaster>(announcement);
        const bool done = std::holds_alternative<client::StepsDone>(announcement);
        if (applied || std::holds_alternative<client::FrozenMaster>(announcement) ||
            std::holds_alternative<client::Joined>(announcement) ||
            std::holds_alternative<client::Left>(announcement)) {
            stir();
        }
        result.steps_running = !done && (result.steps_running || applied || begin != nullptr);
        if (begin != nullptr || end != nullptr || done) {
            result.step = begin != nullptr ? begin->step : "";
        }
        result.steps += end != nullptr ? 1 : 0;
        result.failed += end != nullptr && end->wait_status != 0 ? 1 : 0;
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
