#include "ctl/log/line.h"

#include "ctl/log/pattern.h"

#include <glib.h>
#include <json-glib/json-glib.h>

#include <array>

namespace ctl {

namespace {

/* No value for what no clock of a running system shows. */
std::optional<int64_t> sane_time(int64_t time) {
    constexpr int64_t end_of_9999 = 253'402'300'800'000'000;
    return time >= 0 && time < end_of_9999 ? std::optional(time) : std::nullopt;
}

int64_t time_of(GDateTime *date) {
    return g_date_time_to_unix(date) * G_USEC_PER_SEC + g_date_time_get_microsecond(date);
}

std::optional<int64_t> iso_time(const std::string &date, const std::string &clock,
                                const std::string &zone) {
    g_autoptr(GTimeZone) local = g_time_zone_new_local();
    g_autoptr(GDateTime) parsed =
        g_date_time_new_from_iso8601((date + "T" + clock + zone).c_str(), local);
    return parsed != nullptr ? sane_time(time_of(parsed)) : std::nullopt;
}

/* "May", "1", "03:12:04.5": the last such date up to a day after `now`, since clocks differ. */
std::optional<int64_t> yearless_time(const std::string &month, const std::string &day,
                                     const std::string &clock, int64_t now) {
    static constexpr std::array months{"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                       "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    int number = 1;
    for (const char *name : months) {
        if (month == name) {
            break;
        }
        number++;
    }
    g_autoptr(GDateTime) today = g_date_time_new_from_unix_local(now / G_USEC_PER_SEC);
    const int this_year = g_date_time_get_year(today);
    char date[32];
    std::optional<int64_t> time;
    /* Far enough back for the 29th of February. */
    for (int year = this_year; year > this_year - 9; year--) {
        g_snprintf(date, sizeof date, "%04d-%02d-%02d", year, number,
                   static_cast<int>(g_ascii_strtoll(day.c_str(), nullptr, 10)));
        time = iso_time(date, clock, "");
        if (time && *time <= now + G_TIME_SPAN_DAY) {
            break;
        }
    }
    return time;
}

bool is_ours(const std::string &text) {
    return text.starts_with("INFO: ") || text.starts_with("WARN: ") || text.starts_with("ERR(") ||
           text.starts_with("DBG(");
}

/* What follows a time stamp: perhaps a host, and who wrote it. */
void take_source(LogLine &line, const std::string &rest) {
    static const Pattern pattern(R"(^(?:\S+ )?([^\s\[\]:]+)(?:\[[^\]]*\])?: (.*)$)");
    const Match match(pattern, rest);
    if (!is_ours(rest) && match) {
        line.source = match.group(1);
        line.text = match.group(2);
    } else {
        line.text = rest;
    }
}

std::string string_member(JsonObject *object, const char *name) {
    JsonNode *node = json_object_get_member(object, name);
    if (node == nullptr) {
        return {};
    }
    if (JSON_NODE_HOLDS_ARRAY(node)) {
        /* The journal writes a text that is not plain as an array of its bytes. */
        std::string bytes;
        JsonArray *array = json_node_get_array(node);
        for (guint i = 0; i < json_array_get_length(array); i++) {
            JsonNode *element = json_array_get_element(array, i);
            bytes += static_cast<char>(JSON_NODE_HOLDS_VALUE(element) ? json_node_get_int(element)
                                                                      : '?');
        }
        return bytes;
    }
    const char *text = JSON_NODE_HOLDS_VALUE(node) ? json_node_get_string(node) : nullptr;
    return text != nullptr ? text : "";
}

std::optional<LogLine> parse_json(const std::string &text) {
    g_autoptr(JsonParser) parser = json_parser_new();
    if (!json_parser_load_from_data(parser, text.data(), static_cast<gssize>(text.size()),
                                    nullptr)) {
        return std::nullopt;
    }
    JsonNode *root = json_parser_get_root(parser);
    if (root == nullptr || !JSON_NODE_HOLDS_OBJECT(root)) {
        return std::nullopt;
    }
    JsonObject *object = json_node_get_object(root);
    LogLine line;
    line.text = string_member(object, "MESSAGE");
    line.source = string_member(object, "SYSLOG_IDENTIFIER");
    const std::string time = string_member(object, "__REALTIME_TIMESTAMP");
    if (!time.empty()) {
        line.time = sane_time(g_ascii_strtoll(time.c_str(), nullptr, 10));
    }
    return line;
}

/* Seconds since 1970, or since boot: no system has been up for as long as the former are many. */
std::optional<int64_t> counted_time(const std::string &seconds, const std::string &micros,
                                    const Clocks &now) {
    constexpr int64_t least_since_1970 = 500'000'000'000'000;
    const int64_t time = g_ascii_strtoll(seconds.c_str(), nullptr, 10) * G_USEC_PER_SEC +
                         g_ascii_strtoll(micros.c_str(), nullptr, 10);
    if (time >= least_since_1970) {
        return sane_time(time);
    }
    return time <= now.since_boot ? std::optional(now.since_1970 - now.since_boot + time)
                                  : std::nullopt;
}

} // namespace

Clocks Clocks::now() {
    return {g_get_real_time(), g_get_monotonic_time()};
}

LogLine parse_log_line(const std::string &text, const Clocks &now) {
    static const Pattern iso(
        R"(^(\d{4}-\d\d-\d\d)[T ](\d\d:\d\d:\d\d(?:[.,]\d+)?)(Z|[+-]\d\d:?\d\d)? (.*)$)");
    static const Pattern syslog(R"(^([A-Z][a-z][a-z]) +(\d\d?) (\d\d:\d\d:\d\d(?:\.\d+)?) (.*)$)");
    static const Pattern counted(R"(^\[? *(\d{1,12})\.(\d{6})\]? +(.*)$)");
    LogLine line;
    line.text = text;
    if (is_ours(text)) {
        return line;
    }
    if (text.starts_with("{")) {
        return parse_json(text).value_or(line);
    }
    if (const Match match(iso, text); match) {
        line.time = iso_time(match.group(1), match.group(2), match.group(3));
        take_source(line, match.group(4));
    } else if (const Match old(syslog, text); old) {
        line.time = yearless_time(old.group(1), old.group(2), old.group(3), now.since_1970);
        take_source(line, old.group(4));
    } else if (const Match stamp(counted, text); stamp) {
        line.time = counted_time(stamp.group(1), stamp.group(2), now);
        take_source(line, stamp.group(3));
    }
    return line;
}

} // namespace ctl
