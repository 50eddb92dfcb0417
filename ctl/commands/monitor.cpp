#include "ctl/ask/bus.h"
#include "ctl/ask/describe.h"
#include "ctl/commands/commands.h"
#include "ctl/print/json.h"
#include "ctl/print/text.h"

namespace ctl {

namespace {

/* A line for each announcement; false when nobody reads any more. */
class Printer {
public:
    explicit Printer(bool as_json) : json(as_json) {}

    bool news(const News &news, client::NodeId local_node) const {
        if (json) {
            return print_line(json_line(json_news(news)));
        }
        return print_line(clock_text(news.time) + " " +
                          paint(colour_of(news), describe(news, local_node)));
    }

    /* Where things stand when the daemon is first seen, or seen again. */
    bool state(const client::Snapshot &snapshot) const {
        const int64_t now = g_get_real_time();
        if (json) {
            Json line = {{"time", iso_text(now)}, {"event", "state"}};
            line.update(json_snapshot(snapshot));
            return print_line(json_line(line));
        }
        const std::string master = snapshot.master_node != 0
                                       ? node_text(snapshot.master_node) + " is master"
                                       : "no master is known";
        const auto members = static_cast<uint64_t>(snapshot.members);
        const std::string frozen =
            snapshot.frozen_node != 0 ? ", frozen to " + node_text(snapshot.frozen_node) : "";
        return print_line(clock_text(now) + " this is " + node_text(snapshot.local_node) + ", " +
                          master + ", " + counted(members, "member") + frozen);
    }

private:
    bool json;
};

} // namespace

int command_monitor(const Options &options) {
    const Printer printer(options.json);
    Bus bus;
    Result<client::Snapshot> snapshot = open_daemon(bus, true);
    if (!snapshot && !snapshot.problem().is_absence()) {
        return report(snapshot.problem());
    }
    bus.catch_endings();
    client::NodeId local_node = snapshot ? snapshot->local_node : 0;
    bool read_by_someone =
        snapshot || printer.news({DaemonVanished{}, g_get_real_time()}, local_node);
    /* A state is shown in its place: after what was announced before it was asked for. */
    bool state_due = static_cast<bool>(snapshot);
    while (read_by_someone) {
        if (state_due && !bus.has_news()) {
            read_by_someone = printer.state(*snapshot);
            state_due = false;
            continue;
        }
        const News news = *bus.next(std::nullopt);
        if (news.is<Interrupted>() || news.is<OutputClosed>()) {
            break;
        }
        read_by_someone = printer.news(news, local_node);
        if (news.is<BusLost>()) {
            return report(bus_closed());
        }
        if (news.is<DaemonAppeared>()) {
            snapshot = bus.read();
            state_due = static_cast<bool>(snapshot);
            local_node = snapshot ? snapshot->local_node : local_node;
        }
    }
    return Exit::ok;
}

} // namespace ctl
