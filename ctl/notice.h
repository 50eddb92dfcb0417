/* What the daemon announces, as values. */
#pragma once

#include <glib.h>

#include <cstdint>
#include <optional>
#include <string>

namespace ctl {

enum class NoticeKind {
    new_master,
    frozen_master,
    joined,
    left,
    keep_alive,
    message,
    hotplug,
    step_begin,
    step_end,
    steps_done,
    /* Not from the daemon, but of it and of the connection: */
    daemon_appeared,
    daemon_vanished,
    bus_lost,
    output_closed,
    interrupted,
};

/* Which fields are set depends on the kind, as the comments say. */
struct Notice {
    NoticeKind kind = NoticeKind::interrupted;
    int64_t time = 0; /* of its arrival, microseconds since 1970 */
    uint32_t node =
        0; /* new_master, frozen_master (0: lifted), joined, left, keep_alive, hotplug */
    uint32_t count = 0;   /* joined, left: members; hotplug: devices; steps_done: failed steps */
    bool added = false;   /* hotplug */
    std::string text;     /* frozen_master: reason; message; step_begin, step_end: path */
    std::string action;   /* step_begin, step_end: "start" or "stop" */
    int status = 0;       /* step_end: wait status */
    std::string hardware; /* hotplug */
    std::string location; /* hotplug */
    std::string device;   /* hotplug: path */
};

/* No value for a signal this program does not know, or with other arguments than it knows. */
std::optional<Notice> read_notice(const char *name, GVariant *arguments);

/* A stable word for programs, such as "new-master". */
const char *notice_word(NoticeKind kind);

/* What it means, in words; node ids unsigned, texts safe for a terminal. */
std::string describe(const Notice &notice, uint32_t local_node);

/* "exited with status 2", "killed by signal 15 (Terminated)"; empty for success. */
std::string describe_wait_status(int status);

} // namespace ctl
