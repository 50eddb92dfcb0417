#include "ctl/log/event.h"

#include "ctl/log/pattern.h"

#include "base/paths.h"

#include <array>
#include <cstring>
#include <vector>

namespace ctl {

namespace {

constexpr EventFormat::Slot skip = std::monostate{};

/*
 * The daemon's lines that tell an operator something, in the words of its sources: a test holds
 * every format against them. Of several that fit a line the first counts.
 */
const EventFormat formats[] = {
    {"INFO", nullptr, "Starting", EventKind::starting, {}},
    {"INFO", nullptr, "Registered on dbus", EventKind::registered, {}},
    {"INFO", nullptr, "GOT SIGNAL: %lu", EventKind::got_signal, {&Event::status}},
    {"INFO", nullptr, "Ending", EventKind::ending, {}},
    {"INFO",
     nullptr,
     "Failed to find a master -- restarting election...",
     EventKind::election_void,
     {}},
    {"INFO",
     nullptr,
     "ELECTION-FINISHED: Master stays %u [priority %d]",
     EventKind::election_stays,
     {&Event::node, &Event::priority}},
    {"INFO",
     nullptr,
     "ELECTION-FINISHED: Master should be %u (that's me -- taking over) [priority %d]",
     EventKind::election_mine,
     {&Event::node, &Event::priority}},
    {"INFO",
     nullptr,
     "ELECTION-FINISHED: Master should be %u (it should take over) [priority %d]",
     EventKind::election_other,
     {&Event::node, &Event::priority}},
    {"INFO",
     nullptr,
     "MASTER: (nodeid = %u priority = %d sync_counter = %u) -- local sync_counter = %u",
     EventKind::became_master,
     {&Event::node, &Event::priority, &Event::counter, &Event::local_counter}},
    {"INFO",
     nullptr,
     "SLAVE: (master nodeid = %u priority = %d sync_counter = %u) -- local sync_counter = %u",
     EventKind::became_slave,
     {&Event::node, &Event::priority, &Event::counter, &Event::local_counter}},
    {"INFO",
     nullptr,
     "From %u: MASTER_GIVEBACK -- ignoring (no valid master)",
     EventKind::giveback_void,
     {&Event::sender}},
    {"INFO",
     nullptr,
     "From %u: MASTER_GIVEBACK -- ignoring my own message",
     EventKind::giveback_own,
     {&Event::sender}},
    {"INFO",
     nullptr,
     "From %u: MASTER_GIVEBACK -- ignoring (local node %d is already existing master)",
     EventKind::giveback_kept,
     {&Event::sender, &Event::node}},
    {"INFO",
     nullptr,
     "From %u: MASTER_GIVEBACK -- sending master take-over (local node %d is slave)",
     EventKind::giveback_taken,
     {&Event::sender, &Event::node}},
    {"INFO",
     nullptr,
     "From %u: FROZEN MASTER %u (%s) -- %s master",
     EventKind::frozen_here,
     {&Event::sender, &Event::frozen, &Event::text, &Event::word}},
    {"INFO",
     nullptr,
     "From %u: FROZEN MASTER %u -- %s slave",
     EventKind::frozen_elsewhere,
     {&Event::sender, &Event::frozen, &Event::word}},
    {"INFO",
     nullptr,
     "From %u: UNFROZEN master -- start election",
     EventKind::unfrozen,
     {&Event::sender}},
    {"INFO",
     nullptr,
     "PREFERRED MASTER(%u) -- no master election (FROZEN to %u)",
     EventKind::prefer_frozen,
     {&Event::count, &Event::frozen}},
    {"INFO",
     nullptr,
     "From %u: JOINED -- no master election (FROZEN to %u -- %s)",
     EventKind::joined_frozen,
     {&Event::node, &Event::frozen, &Event::text}},
    {"INFO",
     nullptr,
     "From %u: LEFT -- no master election (FROZEN to %u)",
     EventKind::left_frozen,
     {&Event::node, &Event::frozen}},
    {"INFO",
     nullptr,
     "---------- started %s (is_master=%d) (pid = %d)",
     EventKind::step_started,
     {&Event::text, &Event::role, &Event::child}},
    {"INFO",
     nullptr,
     "---------- ended %s (is_master=%d) (pid = %d, status = %d)",
     EventKind::step_ended,
     {&Event::text, &Event::role, &Event::child, &Event::status}},
    {"INFO",
     nullptr,
     "---------- run steps done (%d errors)",
     EventKind::steps_done,
     {&Event::count}},
    {"INFO",
     nullptr,
     "Already running -- remember pending transition (is_master=%d)",
     EventKind::run_remembered,
     {&Event::role}},
    {"INFO",
     nullptr,
     "Run pending transition (is_master=%d)",
     EventKind::run_pending,
     {&Event::role}},
    {"INFO",
     nullptr,
     "From %u: now %d Lumacrates: %s [%s] @%s (%s)",
     EventKind::device,
     {&Event::sender, &Event::count, &Event::word, &Event::more, skip, &Event::text}},
    {"WARN",
     nullptr,
     "FROZEN to %d -- ignoring %s change request",
     EventKind::refused_frozen,
     {&Event::frozen, &Event::word}},
    {"WARN",
     nullptr,
     "Only %zd node -- ignoring %s change request",
     EventKind::refused_alone,
     {&Event::count, &Event::word}},
    {"ERR",
     "message_handler_master_propose",
     "From %u: SPLIT BRAIN RECONNECTED (current %d, got %d) -- Aborting",
     EventKind::split_brain,
     {&Event::sender, &Event::node, &Event::frozen}},
    {"ERR",
     "handle_got_message",
     "From %u: Message mtype=%u(%c) without handler. Discarding (%zu bytes)",
     EventKind::bad_message,
     {&Event::sender, &Event::status, skip, &Event::count}},
    {"ERR",
     "handle_got_message",
     "From %u: Message mtype=%u(%c) is malformed. Discarding (%zu bytes)",
     EventKind::bad_message,
     {&Event::sender, &Event::status, skip, &Event::count}},
    {"ERR", "duskvale_cpg_send", "Failed: cpg_mcast_joined()", EventKind::send_failed, {}},
    {"ERR",
     "dvcpg_callback",
     "corosync is gone (cpg_dispatch: %d) -- ending",
     EventKind::corosync_gone,
     {skip}},
    {"ERR",
     nullptr,
     "Lost the connection to the system bus, ending with status %d",
     EventKind::bus_lost,
     {skip}},
    {"ERR", "duskvale_corosync_new", "Failed dvcpg_glib_register()", EventKind::start_failed, {}},
    {"ERR", "duskvale_corosync_new", "Failed duskvale_dbus_register()", EventKind::name_taken, {}},
    {"ERR", "child_timeout", "child_timeout(pid=%d)", EventKind::step_late, {&Event::child}},
    {"ERR", "run_next", "%s", EventKind::step_not_run, {&Event::text}},
    {"INFO",
     nullptr,
     "stop-steps: the daemon has ended%s, running the steps with stop",
     EventKind::unit_stopping,
     {&Event::word}},
    {"INFO",
     nullptr,
     "stop-steps: the daemon did not start%s, running the steps with stop",
     EventKind::unit_stopping,
     {&Event::word}},
    {"INFO", nullptr, "stop-steps: %s stop: done", EventKind::unit_step, {&Event::text}},
    {"ERR",
     "stop-steps",
     "%s stop: status %d",
     EventKind::unit_step_failed,
     {&Event::text, &Event::status}},
    {"ERR",
     "stop-steps",
     "%s stop: not done after %d s, ended",
     EventKind::unit_step_late,
     {&Event::text, &Event::count}},
    {"INFO", nullptr, "stop-steps: finished, %d failed", EventKind::unit_stopped, {&Event::count}},
    {"INFO",
     nullptr,
     "wait-for-ring: %s, waiting for at most %d s",
     EventKind::unit_waiting,
     {&Event::text, &Event::count}},
    {"INFO",
     nullptr,
     "wait-for-ring: %s, waited %d s",
     EventKind::unit_waited,
     {&Event::text, &Event::count}},
    {"DBG",
     "handle_joined",
     "From %u: JOINED: %zd nodes",
     EventKind::joined,
     {&Event::node, &Event::count}},
    {"DBG",
     "handle_left",
     "From %u: LEFT %zd nodes",
     EventKind::left,
     {&Event::node, &Event::count}},
    {"DBG",
     "send_master_election_start",
     "START MASTER ELECTION (local nodeid = %u priority = %d)",
     EventKind::election_called,
     {&Event::node, &Event::priority}},
    {"DBG",
     "message_handler_master_propose",
     "From %u: nodeid = %u priority = %d sync_counter = %u current_master_nodeid = %u "
     "(my_priority = %d)",
     EventKind::proposal,
     {&Event::sender, &Event::node, &Event::priority, &Event::counter, &Event::frozen, skip}},
    {"DBG",
     "message_handler_master_propose",
     "From %u: PROPOSAL FROM %u: FIRST: priority %d sync_counter %u",
     EventKind::proposal_first,
     {&Event::sender, &Event::node, &Event::priority, &Event::counter}},
    {"DBG",
     "message_handler_master_takeover",
     "From %u: Master is now %u priority = %d sync_counter = %u",
     EventKind::take_over_from,
     {&Event::sender, &Event::node, &Event::priority, &Event::counter}},
    /* The service manager's word on an end that the daemon could not log itself. */
    {"",
     nullptr,
     DUSKVALE_IDENT ".service: Main process exited, code=%s, status=%s",
     EventKind::process_ended,
     {&Event::word, &Event::text}},
};

/* The expression that fits what printf writes for `format`. */
std::string expression_of(const char *format) {
    std::string expression = "^";
    for (const char *at = format; *at != '\0'; at++) {
        if (*at != '%') {
            if (std::strchr("()[].*+?|\\{}^$", *at) != nullptr) {
                expression += '\\';
            }
            expression += *at;
            continue;
        }
        at += 1 + std::strspn(at + 1, "zl");
        expression += *at == 's' ? "(.*)" : *at == 'c' ? "(.)" : "(-?\\d+)";
    }
    return expression + "$";
}

const std::vector<Pattern> &patterns() {
    static const std::vector<Pattern> compiled = [] {
        std::vector<Pattern> list;
        for (const EventFormat &format : formats) {
            list.emplace_back(expression_of(format.format));
        }
        return list;
    }();
    return compiled;
}

/* A line of the daemon without its prefix. */
struct Parts {
    std::string level;
    std::string function;
    std::string text;
};

Parts take_apart(const LogLine &line) {
    static const Pattern error(R"(^ERR\(([\w-]+)\):(.*)$)");
    static const Pattern debug(R"(^DBG\(\w+\): (\w+): (.*)$)");
    const std::string &text = line.text;
    if (line.source == "systemd") {
        return {"", "", text};
    }
    if (text.starts_with("INFO: ") || text.starts_with("WARN: ")) {
        return {text.substr(0, 4), "", text.substr(6)};
    }
    if (const Match match(error, text); match) {
        return {"ERR", match.group(1), match.group(2)};
    }
    if (const Match match(debug, text); match) {
        return {"DBG", match.group(1), match.group(2)};
    }
    return {"none", "", text};
}

void fill(Event &event, const EventFormat &format, const Match &match) {
    int group = 1;
    for (const EventFormat::Slot &slot : format.slots) {
        if (const auto *number = std::get_if<int64_t Event::*>(&slot)) {
            event.*(*number) = g_ascii_strtoll(match.group(group).c_str(), nullptr, 10);
        } else if (const auto *text = std::get_if<std::string Event::*>(&slot)) {
            event.*(*text) = match.group(group);
        }
        group++;
    }
}

/* These only repeat in other words what another line tells. */
bool repeats(const std::string &function) {
    static constexpr std::array functions{"run_step_end", "run_steps_done", "dvcpg_glib_register",
                                          "run_mainloop", "duskvale_cpg_new"};
    for (const char *name : functions) {
        if (function == name) {
            return true;
        }
    }
    return false;
}

} // namespace

std::span<const EventFormat> event_formats() {
    return formats;
}

std::optional<Event> parse_event(const LogLine &line) {
    /* Another program's lines may look like the daemon's. */
    if (!line.source.empty() && !line.source.starts_with(DUSKVALE_IDENT) &&
        line.source != "stop-steps" && line.source != "wait-for-ring" && line.source != "systemd") {
        return std::nullopt;
    }
    const Parts parts = take_apart(line);
    Event event;
    event.time = line.time;
    for (std::size_t i = 0; i < std::size(formats); i++) {
        const EventFormat &format = formats[i];
        if (parts.level != format.level ||
            (format.function != nullptr && parts.function != format.function)) {
            continue;
        }
        if (const Match match(patterns()[i], parts.text); match) {
            event.kind = format.kind;
            fill(event, format, match);
            return event;
        }
    }
    if (parts.level == "ERR" && !repeats(parts.function)) {
        event.word = parts.function;
        event.text = parts.text;
        return event;
    }
    return std::nullopt;
}

} // namespace ctl
