#include "ctl/ask/request.h"

#include "ctl/exit-status.h"
#include "ctl/history/sentence.h"
#include "ctl/print/text.h"
#include "ctl/program.h"

#include "base/paths.h"

#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdio>

namespace ctl {

namespace {

/* The daemon's log does not have who asked: `duskvalectl why` and `history` read it from here. */
void note(const std::string &name) {
    const char *login = getlogin(); /* who logged in, also behind sudo(8) */
    openlog("duskvalectl", 0, LOG_DAEMON);
    syslog(LOG_INFO, "%s asks: %s", login != nullptr ? login : g_get_user_name(), name.c_str());
}

int refuse(const std::string &why) {
    return complain(Exit::refused, "refused: " + why);
}

/* Why the daemon refused shows in its state. */
std::string refusal(const Request &request, const client::Snapshot &now) {
    const std::string alone = "\nNext: bring another node back; or, when all others are off for "
                              "good, duskvalectl unfreeze --alone";
    const bool frozen = now.frozen_node != 0;
    if (request.needs_no_freeze && frozen) {
        return "mastership is frozen to " + node_text(now.frozen_node) + ": " +
               reason_text(now.frozen_reason) +
               (now.members < 2 ? alone : "\nNext: duskvalectl unfreeze");
    }
    if (now.members < 2) {
        return "only one node is in the group" +
               (frozen ? alone
                       : "\nNext: systemctl status corosync " DUSKVALE_IDENT " on the other nodes");
    }
    return "the daemon refused, and its state has changed since\nNext: ask again";
}

std::string role_text(const client::Snapshot &snapshot) {
    return snapshot.master_node == 0 ? "no master is known"
           : snapshot.is_master      ? node_text(snapshot.master_node) + ", this node, is master"
                                     : node_text(snapshot.master_node) + " is master";
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

/* Why nothing came of it. A corosync that is stalled keeps the request. */
std::string no_effect_text() {
    return ask_program({"corosync-cmapctl", "nodelist.local_node_pos"}).timed_out
               ? "corosync does not answer: it hangs or gets no processor time\n"
                 "Next: systemctl status corosync. It keeps the request, which may still take "
                 "effect when corosync continues"
               : "nothing came back from the cluster\n"
                 "Next: duskvalectl status, then ask again: a request can be lost while the ring "
                 "is being formed";
}

int timed_out(const Settling &settling, double limit) {
    const std::string missing = !settling.effect_seen ? no_effect_text()
                                : !settling.step.empty()
                                    ? "the step " + file_name(settling.step) + " is still running"
                                    : "it took effect, but the cluster is not at rest yet";
    const std::chrono::milliseconds waited(std::llround(limit * 1000));
    return complain(Exit::timed_out, "timed out after " + duration_text(waited) + ": " + missing);
}

/* For someone who sits in front of a terminal. */
void show_progress(const News &news, client::NodeId local) {
    const client::Announcement *announcement = news.announcement();
    if (announcement != nullptr && isatty(STDERR_FILENO) == 1 &&
        !std::holds_alternative<client::Text>(*announcement) &&
        !std::holds_alternative<client::KeepAlive>(*announcement)) {
        std::fprintf(stderr, "  %s\n", wording(to_event(*announcement), local).text.c_str());
    }
}

SettleRequest settling_of(const Request &request, const client::Snapshot &before, double limit) {
    SettleRequest result;
    if (request.effect) {
        result.effect = [&](const client::Announcement &announcement) {
            return request.effect(announcement, before);
        };
    }
    result.deadline = after(limit);
    return result;
}

int wait_for_effect(Bus &bus, const Request &request, const client::Snapshot &before,
                    double limit) {
    const int64_t start = g_get_monotonic_time();
    SettleRequest wanted = settling_of(request, before, limit);
    wanted.election = request.election && request.election(before);
    wanted.watcher = [&](const News &news) { show_progress(news, before.local_node); };
    const Settling settling = settle(bus, before, wanted);
    if (!settling.in_time) {
        return timed_out(settling, limit);
    }
    print_line(outcome_text(settling, g_get_monotonic_time() - start));
    if (!request.holds(settling.last)) {
        return complain(Exit::failed, "the change did not last: a later one overrode it");
    }
    return settling.failed > 0 ? Exit::failed : Exit::ok;
}

/* The daemon says nothing of a setting that it could not write, and loses it with its end. */
int check_stored(const Request &request) {
    const StoredSetting stored = read_stored(request.stored_in);
    if (stored.fault == EACCES || request.is_stored(stored)) {
        return Exit::ok;
    }
    return complain(Exit::failed,
                    std::string("it is in effect, but this node has not stored it in ") +
                        request.stored_in +
                        ", and loses it when its daemon restarts\nNext: df /etc/duskvale; when "
                        "there is space, ask again");
}

std::optional<client::Call> call_to_keeper(Bus &bus, const Request &request,
                                           const client::Snapshot &before) {
    const KeeperView keeper = request.by_keeper ? bus.read_keeper() : KeeperView();
    return keeper ? request.by_keeper(before, *keeper) : std::nullopt;
}

int ask_daemon(Bus &bus, const Request &request, const client::Snapshot &before) {
    note(request.name);
    if (!bus.ask(request.call).value()) {
        return refuse(refusal(request, bus.read().value()));
    }
    print_line(request.asked(before));
    return Exit::ok;
}

} // namespace

int carry_out(const Request &request, std::optional<double> wait) {
    Bus bus;
    const client::Snapshot before = open_daemon(bus, true).value();
    const std::string objection = request.objection ? request.objection(before) : "";
    if (!objection.empty()) {
        return refuse(objection);
    }
    const std::optional<client::Call> better = call_to_keeper(bus, request, before);
    const int asked = better ? ask_keeper(bus, request.name, *better, ask_again)
                             : ask_daemon(bus, request, before);
    if (asked != Exit::ok) {
        return asked;
    }
    const int status = wait ? wait_for_effect(bus, request, before, *wait) : Exit::ok;
    if (status != Exit::ok || request.stored_in == nullptr ||
        (!wait && !settle(bus, before, settling_of(request, before, 1)).effect_seen)) {
        return status;
    }
    return check_stored(request);
}

int ask_keeper(Bus &bus, const std::string &name, const client::Call &call, const char *without) {
    note(name);
    const KeeperAnswer answer = bus.ask_keeper(call);
    if (!answer.done) {
        return refuse(answer.absent ? std::string("no keeper runs on this node\nNext: ") + without
                                    : answer.text);
    }
    print_line(answer.text);
    return Exit::ok;
}

int send_call(const client::Call &call, const std::string &done) {
    Bus bus;
    bus.connect();
    bus.ask(call).value();
    print_line(done);
    return Exit::ok;
}

} // namespace ctl
