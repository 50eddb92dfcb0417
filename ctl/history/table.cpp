#include "ctl/history/journal.h"

#include "ctl/print/text.h"

#include "base/paths.h"

#include <algorithm>
#include <cstdlib>
#include <type_traits>

namespace ctl {

using nlohmann::json;

namespace {

/* No line of the daemon is nearly as long; a step may print anything. */
constexpr std::size_t longest_message = 8192;

/* Whose words an entry is, by the fields that journald itself fills in. Only root's count. */
enum class Writer {
    daemon,        /* or stop-steps or wait-for-ring, which its unit runs */
    daemon_output, /* its standard output, which its run steps share, by way of logger(1) */
    service_manager,
    operator_command, /* duskvalectl */
    keeper,
    other,
};

constexpr const char *unit = DUSKVALE_IDENT ".service";
constexpr const char *keeper = "duskvale-keeper";
constexpr const char *keeper_unit = "duskvale-keeper.service";

/* Fields that begin with "_" are journald's own; of a program's name the kernel keeps 15
 characters. */
struct Origin {
    Writer writer;
    const char *identifier, *field, *value, *unit_field, *unit;
};
constexpr Origin origins[] = {
    {Writer::daemon, DUSKVALE_IDENT, "_COMM", "duskvale-corosy", "_SYSTEMD_UNIT", unit},
    {Writer::daemon_output, DUSKVALE_IDENT, "_COMM", "logger", "_SYSTEMD_UNIT", unit},
    {Writer::daemon, "stop-steps", "_COMM", "stop-steps", "_SYSTEMD_UNIT", unit},
    {Writer::daemon, "wait-for-ring", "_COMM", "wait-for-ring", "_SYSTEMD_UNIT", unit},
    {Writer::service_manager, "systemd", "_PID", "1", "UNIT", unit},
    {Writer::operator_command, "duskvalectl", "_COMM", "duskvalectl", "UNIT", ""},
    {Writer::keeper, keeper, "_COMM", keeper, "_SYSTEMD_UNIT", keeper_unit},
    {Writer::keeper, keeper, "_COMM", keeper, "_SYSTEMD_UNIT", unit},
};

std::string field_of(const json &entry, const char *name) {
    const json value = entry.value(name, json());
    /* What is not plain text is an array of its bytes. */
    std::string bytes;
    for (const json &byte : value.is_array() ? value : json::array()) {
        bytes += static_cast<char>(byte.is_number_integer() ? byte.get<int>() : '?');
    }
    return value.is_string() ? value.get<std::string>() : bytes;
}

Writer writer_of(const json &entry) {
    for (const Origin &origin : origins) {
        if (field_of(entry, "_UID") == "0" && field_of(entry, origin.field) == origin.value &&
            field_of(entry, "SYSLOG_IDENTIFIER") == origin.identifier &&
            field_of(entry, origin.unit_field) == origin.unit) {
            return origin.writer;
        }
    }
    return Writer::other;
}

/* What a conversion of a format wrote, as a member of an event: text or a number. */
struct Word {
    std::string text;

    template <typename T>
    operator T() const {
        if constexpr (std::is_same_v<T, std::string>) {
            return text;
        } else { /* Some lines print node ids signed. */
            return static_cast<T>(std::strtoll(text.c_str(), nullptr, 10));
        }
    }
};
using Words = std::vector<Word>;

struct Row {
    Writer writer;
    const char *format;                /* of the sources, with its prefix, without its newline */
    Event (*make)(const Words &words); /* null for a line that says nothing to an operator */
};

/* An event whose first members are these words of the line; `none` for one that it does not have.
 */
constexpr std::size_t none = 99;
template <typename E, std::size_t... places>
Event make(const Words &words) {
    return E{(places == none ? Word() : words.at(places))...};
}

Event make_step(const Words &words) {
    const std::string action = words.at(1).text == "0" ? "stop" : "start";
    return words.size() == 3 ? Event(client::StepBegin{words.at(0), action})
                             : Event(client::StepEnd{words.at(0), action, words.at(3)});
}

constexpr Writer daemon = Writer::daemon;

constexpr Row rows[] = {
    {daemon, "INFO: Starting", make<DaemonStarted>},
    {daemon, "DBG(CPG): duskvale_cpg_new: Local node: %u", make<LocalNode, 0>},
    {daemon, "INFO: GOT SIGNAL: %lu",
     [](const Words &words) {
         return Event(DaemonEnded{"was stopped by " + signal_text(words.at(0))});
     }},
    {daemon, "ERR(dvcpg_callback):corosync is gone (cpg_dispatch: %d) -- ending",
     [](const Words &) { return Event(DaemonEnded{"ended because corosync did"}); }},
    {daemon,
     "ERR(end_when_disconnected):Lost the connection to the system bus, ending with status %d",
     [](const Words &) { return Event(DaemonEnded{"ended because the system bus did"}); }},
    {Writer::operator_command, "%s asks: %s", make<OperatorRequest, 0, 1>},
    {Writer::keeper, "%s", make<KeeperLine, 0>},

    {daemon, "DBG(CPG): cpg_confchg_fn: group_name='%s'", make<GroupChanged>},
    {Writer::daemon_output, "\t[%zu] joined: nodeid=%u pid=%u reason=%u", make<Joined, 1, none, 3>},
    {Writer::daemon_output, "\t[%zu] left: nodeid=%u pid=%u reason=%u", make<Left, 1, none, 3>},
    {daemon, "INFO: From %u: %s -- no master election (FROZEN to %u%s",
     make<StayedFrozen, 0, 1, 2>},

    {daemon, "INFO: ELECTION-FINISHED: Master %s %u %s[priority %d]", make<ElectionEnded, 0, 1, 3>},
    {daemon, "INFO: MASTER: (nodeid = %u %s", make<NewMaster, 0>},
    {daemon, "INFO: SLAVE: (master nodeid = %u %s", make<NewMaster, 0>},
    {daemon,
     "ERR(message_handler_master_propose):From %u: SPLIT BRAIN RECONNECTED (current %d, got %d) "
     "-- Aborting",
     make<MastersDisagree, 0, 1, 2>},
    {daemon, "INFO: From %u: MASTER_GIVEBACK -- %s", make<GaveBack, 0>},
    {daemon, "INFO: From %u: FROZEN MASTER %u (%s) -- %s master", make<FrozenMaster, 1, 2, 0>},
    {daemon, "INFO: From %u: FROZEN MASTER %u -- %s slave", make<FrozenMaster, 1, none, 0>},
    {daemon, "INFO: From %u: UNFROZEN master -- start election", make<FrozenMaster, none, none, 0>},

    {daemon, "INFO: ---------- started %s (is_master=%d) (pid = %d)", make_step},
    {daemon, "INFO: ---------- ended %s (is_master=%d) (pid = %d, status = %d)", make_step},
    {daemon, "INFO: ---------- run steps done (%d errors)", make<client::StepsDone, 0>},
    {daemon, "INFO: From %u: now %d Lumacrates: %s [%s] @%s (%s)",
     [](const Words &w) {
         return Event(
             client::Hotplug{w.at(0), w.at(1), w.at(2).text == "ADDED", w.at(3), w.at(4), w.at(5)});
     }},

    /* Another line has it in better words. */
    {daemon, "INFO: %s signal handler for signo: %d", nullptr},
    {daemon, "INFO: Registered on dbus", nullptr},
    {daemon, "INFO: Ending", nullptr},
    {daemon, "INFO: Already running -- remember pending transition (is_master=%d)", nullptr},
    {daemon, "INFO: Run pending transition (is_master=%d)", nullptr},
    {daemon, "ERR(run_step_end):%s", nullptr},
    {daemon, "ERR(run_steps_done):%s: done with %d errors", nullptr},
    {daemon, "ERR(duskvale_cpg_dispatch):Failed: cpg_dispatch()", nullptr},
};

/* Takes the words of `text` for the conversions of `format`: %s and whole numbers. */
bool scan(std::string_view format, std::string_view text, Words &words) {
    const std::size_t literal = std::min(format.find('%'), format.size());
    if (!text.starts_with(format.substr(0, literal)) || literal == format.size()) {
        return text == format;
    }
    text.remove_prefix(literal);
    format.remove_prefix(format.find_first_not_of("%lz", literal));
    const bool any = format[0] == 's';
    const std::size_t sign = !any && text.starts_with('-') ? 1 : 0;
    const std::size_t most = any ? text.size() : text.find_first_not_of("0123456789", sign);
    /* The longest first: a text may hold what follows it in the format. */
    for (std::size_t left = std::min(most, text.size()) + 1; left > sign + (any ? 0 : 1); left--) {
        words.push_back({std::string(text.substr(0, left - 1))});
        if (scan(format.substr(1), text.substr(left - 1), words)) {
            return true;
        }
        words.pop_back();
    }
    return false;
}

/* What systemd reports of the unit: sd-messages.h has the ids, journalctl -x explains them. */
Event read_report(const json &entry) {
    if (field_of(entry, "MESSAGE_ID") == "de5b426a63be47a7b6ac3eaac82e2f6f") {
        return DaemonEnded{"was stopped with its unit"};
    }
    if (field_of(entry, "MESSAGE_ID") != "98e322203f7a4ed290d09fe03c09fe15" ||
        field_of(entry, "COMMAND") != "ExecStart") {
        return Remark{"systemd: " + field_of(entry, "MESSAGE"), false};
    }
    const Word status{field_of(entry, "EXIT_STATUS")};
    return DaemonEnded{field_of(entry, "EXIT_CODE") == "exited"
                           ? "ended with status " + status.text
                           : "was killed by " + signal_text(status)};
}

} // namespace

std::optional<Record> read_record(const json &entry) {
    const auto number = [&](const char *name) { return int64_t{Word{field_of(entry, name)}}; };
    const Writer writer = writer_of(entry);
    const std::string message = field_of(entry, "MESSAGE").substr(0, longest_message);
    Record record{{number("__REALTIME_TIMESTAMP"), number("__MONOTONIC_TIMESTAMP"),
                   field_of(entry, "_BOOT_ID")},
                  static_cast<int>(number("SYSLOG_PID")),
                  {}};
    for (const Row &row : rows) {
        Words words;
        if (row.writer == writer && scan(row.format, message, words)) {
            record.event = row.make != nullptr ? row.make(words) : Event();
            return row.make != nullptr ? std::optional(record) : std::nullopt;
        }
    }
    if (writer == Writer::service_manager) {
        record.event = read_report(entry);
    } else if (writer == Writer::daemon && !message.starts_with("DBG(")) {
        /* In its own words, but for the prefix. */
        const std::size_t text = message.find_first_not_of(' ', message.find(':') + 1);
        record.event =
            Remark{message.substr(std::min(text, message.size())), !message.starts_with("INFO: ")};
    } else {
        return std::nullopt;
    }
    return record;
}

} // namespace ctl
