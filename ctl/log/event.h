/* What one line of the daemon's log says, as a value. */
#pragma once

#include "ctl/log/line.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <variant>

namespace ctl {

enum class EventKind {
    /* the daemon's life: see about_daemon() */
    starting,
    registered,
    got_signal,
    ending,
    process_ended,
    start_failed,
    name_taken,
    split_brain,
    corosync_gone,
    bus_lost,
    /* what the unit does after it: the steps once more, with "stop" */
    unit_stopping,
    unit_step,
    unit_step_failed,
    unit_step_late,
    unit_stopped,
    /* and before it */
    unit_waiting,
    unit_waited,
    /* membership */
    joined,
    left,
    joined_frozen,
    left_frozen,
    /* elections */
    election_called,
    proposal,
    proposal_first,
    election_void,
    election_stays,
    election_mine,
    election_other,
    /* mastership */
    became_master,
    became_slave,
    take_over_from,
    giveback_void,
    giveback_own,
    giveback_kept,
    giveback_taken,
    frozen_here,
    frozen_elsewhere,
    unfrozen,
    prefer_frozen,
    refused_frozen,
    refused_alone,
    /* run steps */
    step_started,
    step_ended,
    step_late,
    step_not_run,
    steps_done,
    run_remembered,
    run_pending,
    /* others */
    device,
    send_failed,
    bad_message,
    error,
};

/* Whether it is about the daemon's start or end. */
constexpr bool about_daemon(EventKind kind) {
    return kind <= EventKind::unit_waited;
}

/* Which fields are set depends on the kind; see the table in event.cpp. */
struct Event {
    EventKind kind = EventKind::error;
    std::optional<int64_t> time; /* microseconds since 1970 */
    int64_t sender = 0;          /* the node the message came from */
    int64_t node = 0;            /* the node it is about; may have been printed signed */
    int64_t frozen = 0;
    int64_t priority = 0;
    int64_t counter = 0;
    int64_t local_counter = 0;
    int64_t count = 0;
    int64_t status = 0;
    int64_t role = 0; /* 1: master, 0: slave */
    int64_t child = 0;
    std::string text;
    std::string word;
    std::string more;

    bool operator==(const Event &) const = default;
};

/* How a format of the daemon's sources is read. */
struct EventFormat {
    using Slot = std::variant<std::monostate, int64_t Event::*, std::string Event::*>;
    const char *level;    /* "INFO", "WARN", "ERR", "DBG"; "" for lines of other programs */
    const char *function; /* the one that writes it; null for any, or where the line names none */
    const char *format;   /* as in the sources, without the newline */
    EventKind kind;
    Slot slots[6]; /* where the conversions of the format go, in order */
};

std::span<const EventFormat> event_formats();

/* No value for a line that tells an operator nothing. An error line that no format fits is an event
   of the kind `error`. */
std::optional<Event> parse_event(const LogLine &line);

} // namespace ctl
