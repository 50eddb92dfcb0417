#include "ctl/ask/request.h"

#include "ctl/ask/progress.h"
#include "ctl/exit-status.h"
#include "ctl/print/text.h"

#include <cstdio>

namespace ctl {

namespace {

int refuse(const std::string &why) {
    std::fprintf(stderr, "duskvalectl: refused: %s\n", why.c_str());
    return Exit::refused;
}

/* Why the daemon refused: what it holds against a request shows in its state. */
std::string refusal(const Request &request, const client::Snapshot &now) {
    if (request.needs_no_freeze && now.frozen_node != 0) {
        const std::string reason =
            now.frozen_reason.empty() ? "no reason given" : printable(now.frozen_reason);
        return "mastership is frozen to " + node_text(now.frozen_node) + ": " + reason +
               (now.members < 2 ? "\nTo go on, bring another node back, since a single one cannot "
                                  "lift a freeze; then duskvalectl unfreeze"
                                : "\nTo go on, lift the freeze: duskvalectl unfreeze");
    }
    if (now.members < 2) {
        return "only one node is in the group\n"
               "To go on, bring another node back: systemctl status corosync "
               "duskvale-corosync-bridge, on that node";
    }
    return "the daemon said no, and its state has changed since\nTo go on, ask again";
}

std::string role_text(const client::Snapshot &snapshot) {
    if (snapshot.master_node == 0) {
        return "no master is known";
    }
    return node_text(snapshot.master_node) + (snapshot.is_master ? ", this node," : "") +
           " is master";
}

std::string outcome_text(const Settling &settling, int64_t took) {
    const client::Snapshot &now = settling.last;
    std::string text = role_text(now);
    if (now.frozen_node != 0) {
        text += ", frozen to " + node_text(now.frozen_node);
    }
    if (settling.steps > 0) {
        text += ", " + counted(settling.steps, "run step") + " done";
        if (settling.failed > 0) {
            text += ", " + std::to_string(settling.failed) + " FAILED";
        }
    }
    return text + ", after " + duration_text(std::chrono::microseconds(took));
}

int timed_out(const Settling &settling, double limit) {
    std::string missing;
    if (!settling.effect_seen) {
        missing = "nothing came back from the cluster\n"
                  "A request can be lost while the ring is being formed. Look at 'duskvalectl "
                  "status', then ask again";
    } else if (!settling.step.empty()) {
        missing = "the step " + file_name(settling.step) + " is still running";
    } else {
        missing = "it took effect, but the cluster has not come to rest";
    }
    std::fprintf(stderr, "duskvalectl: timed out after %s: %s\n",
                 duration_text(std::chrono::round<std::chrono::microseconds>(
                                   std::chrono::duration<double>(limit)))
                     .c_str(),
                 missing.c_str());
    return Exit::timed_out;
}

int wait_for_effect(Bus &bus, const Request &request, const client::Snapshot &before,
                    double limit) {
    const int64_t start = g_get_monotonic_time();
    Settling settling;
    {
        Progress progress;
        SettleRequest settle_request;
        if (request.effect) {
            settle_request.effect = [&](const client::Announcement &announcement) {
                return request.effect(announcement, before);
            };
        }
        settle_request.election = request.election && request.election(before);
        settle_request.deadline = after(limit);
        settle_request.watcher = [&](const News &news) { progress.show(news, before.local_node); };
        settling = settle(bus, before, settle_request);
    }
    switch (settling.outcome) {
    case Settled::timed_out:
        return timed_out(settling, limit);
    case Settled::vanished:
    case Settled::bus_lost:
        return report(settling.problem);
    case Settled::yes:
        break;
    }
    print_line(outcome_text(settling, g_get_monotonic_time() - start));
    if (!request.holds(settling.last)) {
        std::fputs("duskvalectl: it did not hold: the cluster decided otherwise since\n", stderr);
        return Exit::failed;
    }
    return settling.failed > 0 ? Exit::failed : Exit::ok;
}

} // namespace

int carry_out(const Request &request, std::optional<double> wait) {
    Bus bus;
    const Result<client::Snapshot> before = open_daemon(bus, wait.has_value());
    if (!before) {
        return report(before.problem());
    }
    const std::string objection = request.objection ? request.objection(*before) : "";
    if (!objection.empty()) {
        return refuse(objection);
    }
    const Result<bool> accepted = request.ask(bus);
    if (!accepted) {
        return report(accepted.problem());
    }
    if (!*accepted) {
        const Result<client::Snapshot> now = bus.read();
        return now ? refuse(refusal(request, *now)) : report(now.problem());
    }
    print_line(request.asked(*before));
    return wait ? wait_for_effect(bus, request, *before, *wait) : Exit::ok;
}

} // namespace ctl
