#include "ctl/ask/bus.h"
#include "ctl/commands/commands.h"
#include "ctl/history/sentence.h"

#include "client/overloaded.h"

namespace ctl {

namespace {

Wording wording_of(const News &news, NodeId local) {
    const auto visitor = client::Overloaded{
        [&](const client::Announcement &a) { return wording(to_event(a), local); },
        [](const DaemonAppeared &) { return say("daemon-appeared", "the daemon is running"); },
        [](const DaemonVanished &) {
            return say("daemon-vanished", "the daemon is not running, waiting for it", Colour::bad);
        },
        [&](const KeeperLogged &logged) { return wording(KeeperLine{logged.text}, local); },
        [](const BusLost &) {
            return say("bus-lost", "the system bus closed the connection", Colour::bad);
        },
        [](const OutputClosed &) { return say("output-closed", "nobody reads this"); },
    };
    return std::visit(visitor, news.content);
}

/* The state when the daemon is first seen, or seen again. */
Wording wording_of(const client::Snapshot &now) {
    std::string text = "this is " + node_text(now.local_node) + ", ";
    text += now.master_node != 0 ? node_text(now.master_node) + " is master" : "no master is known";
    text += ", " + counted(static_cast<uint64_t>(now.members), "member");
    text += now.frozen_node != 0 ? ", frozen to " + node_text(now.frozen_node) : "";
    return {"state", text, Colour::plain, json_snapshot(now)};
}

/* Keepers talk to each other through the daemon, and a master's sends a keep-alive each second. */
bool is_talk_of_keepers(const client::Announcement *news, bool keepers) {
    const auto *text = std::get_if<client::Text>(news);
    return text != nullptr ? text->text.starts_with(client::keeper_text)
                           : keepers && std::get_if<client::KeepAlive>(news) != nullptr;
}

} // namespace

int command_monitor(const Options &options) {
    Bus bus;
    Result<client::Snapshot> snapshot = open_daemon(bus, true);
    if (!snapshot && !snapshot.problem().is_absence()) {
        return report(snapshot.problem());
    }
    bus.watch_output();
    bool keepers = static_cast<bool>(read_keeper(bus, snapshot));
    NodeId local = snapshot ? snapshot->local_node : 0;
    /* A state is shown in its place: after what was announced before it was asked for. */
    bool state_due = static_cast<bool>(snapshot);
    News news{DaemonVanished{}, g_get_real_time()};
    bool wanted = state_due || print_wording(news.time, wording_of(news, local), options.json);
    while (wanted) {
        if (state_due && !bus.has_news()) {
            wanted = print_wording(g_get_real_time(), wording_of(*snapshot), options.json);
            state_due = false;
            continue;
        }
        news = *bus.next(std::nullopt);
        if (news.is<OutputClosed>()) {
            break;
        }
        if (is_talk_of_keepers(news.announcement(), keepers)) {
            keepers = true;
            continue;
        }
        wanted = print_wording(news.time, wording_of(news, local), options.json);
        if (news.is<BusLost>()) {
            return report(bus_closed());
        }
        if (news.is<DaemonAppeared>()) {
            snapshot = bus.read();
            state_due = static_cast<bool>(snapshot);
            local = snapshot ? snapshot->local_node : local;
        }
    }
    return Exit::ok;
}

} // namespace ctl
