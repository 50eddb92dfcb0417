#include "ctl/bus.h"
#include "ctl/commands/commands.h"
#include "ctl/output.h"

namespace ctl {

namespace {

Colour colour_of(const Notice &notice) {
    switch (notice.kind) {
    case NoticeKind::new_master:
        return Colour::good;
    case NoticeKind::frozen_master:
    case NoticeKind::left:
        return Colour::doubtful;
    case NoticeKind::step_end:
        return notice.status == 0 ? Colour::plain : Colour::bad;
    case NoticeKind::steps_done:
        return notice.count == 0 ? Colour::plain : Colour::bad;
    case NoticeKind::daemon_vanished:
    case NoticeKind::bus_lost:
        return Colour::bad;
    default:
        return Colour::plain;
    }
}

/* A line for each announcement; false when nobody reads any more. */
class Printer {
public:
    explicit Printer(bool as_json) : json(as_json) {}

    bool notice(const Notice &notice, uint32_t local_node) const {
        if (json) {
            JsonLine line;
            add_notice(line, notice);
            return print_line(line.text());
        }
        return print_line(clock_text(notice.time) + " " +
                          paint(colour_of(notice), describe(notice, local_node)));
    }

    /* Where things stand when the daemon is first seen, or seen again. */
    bool state(const Snapshot &snapshot) const {
        const int64_t now = g_get_real_time();
        if (json) {
            JsonLine line;
            line.add("time", iso_text(now)).add("event", "state");
            add_snapshot(line, snapshot);
            return print_line(line.text());
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

int command_monitor(const Arguments &arguments) {
    const Printer printer(arguments.has(Opt::json));
    Bus bus;
    Result<Snapshot> snapshot = open_daemon(bus, true);
    if (!snapshot && !snapshot.problem().is_absence()) {
        return report(snapshot.problem());
    }
    bus.catch_endings();
    uint32_t local_node = snapshot ? snapshot->local_node : 0;
    Notice notice;
    notice.kind = NoticeKind::daemon_vanished;
    notice.time = g_get_real_time();
    bool read_by_someone = snapshot || printer.notice(notice, local_node);
    /* A state is shown in its place: after what was announced before it was asked for. */
    bool state_due = static_cast<bool>(snapshot);
    while (read_by_someone) {
        if (state_due && !bus.has_news()) {
            read_by_someone = printer.state(*snapshot);
            state_due = false;
            continue;
        }
        notice = *bus.next(std::nullopt);
        if (notice.kind == NoticeKind::interrupted || notice.kind == NoticeKind::output_closed) {
            break;
        }
        read_by_someone = printer.notice(notice, local_node);
        if (notice.kind == NoticeKind::bus_lost) {
            return report({ProblemKind::bus_unreachable, "it closed the connection"});
        }
        if (notice.kind == NoticeKind::daemon_appeared) {
            snapshot = bus.read();
            state_due = static_cast<bool>(snapshot);
            local_node = snapshot ? snapshot->local_node : local_node;
        }
    }
    return static_cast<int>(Exit::ok);
}

} // namespace ctl
