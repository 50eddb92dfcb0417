/* A line of a log, apart from where it was written. */
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace ctl {

struct LogLine {
    std::optional<int64_t> time; /* microseconds since 1970 */
    std::string source; /* who wrote it, such as "systemd"; "" when the line does not say */
    std::string text;   /* what was written, without the newline */
};

/* This moment on both clocks, in microseconds. */
struct Clocks {
    int64_t since_1970 = 0;
    int64_t since_boot = 0; /* CLOCK_MONOTONIC */

    static Clocks now();
};

/*
 * Takes a line apart in any form in which the daemon's lines are met: as they left the daemon; with
 * the prefix of syslog or of journalctl's short formats; as an object of journalctl -o json. A date
 * without a year is taken for the last such date, a time without a zone for a local one, and
 * seconds since boot for those of the running system.
 */
LogLine parse_log_line(const std::string &line, const Clocks &now);

} // namespace ctl
