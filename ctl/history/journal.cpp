#include "ctl/history/journal.h"

#include "ctl/program.h"

#include <glib.h>

#include <algorithm>
#include <sstream>
#include <stdexcept>

namespace ctl {

using nlohmann::json;

namespace {

/* A list comes with its change, even on a machine that is starved. */
constexpr int64_t latest_list_us = 5'000'000;
/* No daemon is started again so soon after its end. */
constexpr int64_t last_words_us = 100'000;

/* A long journal on a slow disk takes its time. */
constexpr int journal_limit_s = 300;
constexpr const char *fields =
    "--output-fields=MESSAGE,MESSAGE_ID,SYSLOG_IDENTIFIER,SYSLOG_PID,_PID,"
    "_UID,_COMM,_SYSTEMD_UNIT,UNIT,EXIT_CODE,EXIT_STATUS,COMMAND";

std::string read_source(const Source &source, const std::string &name, std::size_t entries) {
    if (!source.file.empty()) {
        g_autofree char *text = nullptr;
        g_autoptr(GError) error = nullptr;
        const std::string file = source.file == "-" ? "/dev/stdin" : source.file;
        if (g_file_get_contents(file.c_str(), &text, nullptr, &error) == FALSE) {
            throw std::runtime_error(name + " cannot be read: " + error->message);
        }
        return text;
    }
    /* Not both --lines and --since: then journalctl (systemd 252) prints the first lines. */
    const ProgramAnswer answer = ask_program(
        {"journalctl", "--quiet", "--no-pager", "--output=json", fields, "_UID=0",
         "_SYSTEMD_UNIT=duskvale-corosync-bridge.service", "+", "_PID=1",
         "UNIT=duskvale-corosync-bridge.service", "+", "_UID=0", "SYSLOG_IDENTIFIER=duskvalectl",
         "+", "_UID=0", "_SYSTEMD_UNIT=duskvale-keeper.service",
         source.since.empty() ? "--lines=" + std::to_string(entries) : "--since=" + source.since},
        journal_limit_s);
    if (answer.status != 0) {
        throw std::runtime_error(name + " cannot be read: " + answer.err);
    }
    return answer.out;
}

/* The service manager's word of an end may be read before the last words of the daemon that ended:
   they reach journald by different sockets. It is put behind them. */
std::vector<Record> place_ends(std::vector<Record> records) {
    int daemon = 0;
    for (auto end = records.begin(); end != records.end(); ++end) {
        daemon = end->daemon != 0 ? end->daemon : daemon;
        if (std::holds_alternative<DaemonEnded>(end->event) && end->daemon == 0) {
            const auto later = std::find_if(end, records.end(), [end](const Record &record) {
                return microseconds_between(end->time, record.time) >= last_words_us;
            });
            std::stable_partition(end, later, [daemon](const Record &record) {
                return daemon != 0 && record.daemon == daemon;
            });
        }
    }
    return records;
}

/*
 * The daemon logs that the group has changed, and prints who came and went on its standard output,
 * which takes another way to the journal and so comes later, after lines of the daemon that show
 * what followed. This puts the Joined and Left in the place of their GroupChanged and gives them
 * that time. One that no change of the same daemon came shortly before is dropped: a run step,
 * which shares the output, has printed it.
 */
std::vector<Record> place_group_lists(const std::vector<Record> &records) {
    std::vector<Record> result;
    std::size_t place = 0; /* behind the last change and what of its lists has come; 0: none yet */
    for (const Record &record : records) {
        Record *change = place != 0 ? &result[place - 1] : nullptr;
        if (!std::holds_alternative<Joined>(record.event) &&
            !std::holds_alternative<Left>(record.event)) {
            result.push_back(record);
            place = std::holds_alternative<GroupChanged>(record.event) ? result.size() : place;
        } else if (change != nullptr && change->daemon == record.daemon &&
                   microseconds_between(change->time, record.time) < latest_list_us) {
            const Record placed{change->time, record.daemon, record.event};
            if (std::holds_alternative<GroupChanged>(change->event)) {
                *change = placed;
            } else {
                result.insert(result.begin() + static_cast<std::ptrdiff_t>(place++), placed);
            }
        }
    }
    return result;
}

Reading read_last(const Source &source, std::size_t entries) {
    const std::string name = source.file.empty() ? "the journal" : source.file;
    Reading reading;
    std::size_t count = 0;
    std::istringstream lines(read_source(source, name, entries));
    for (std::string line; std::getline(lines, line); count++) {
        const json entry = json::parse(line, nullptr, false);
        if (!entry.is_object() || !entry.contains("__REALTIME_TIMESTAMP")) {
            throw std::runtime_error(name + ", line " + std::to_string(count + 1) +
                                     ": not an entry as \"journalctl -o json\" prints it");
        }
        if (auto record = read_record(entry)) {
            const auto *local = std::get_if<LocalNode>(&record->event);
            reading.local = local != nullptr ? local->node : reading.local;
            reading.records.push_back(std::move(*record));
        }
    }
    reading.records = place_group_lists(place_ends(std::move(reading.records)));
    reading.all = !source.file.empty() || !source.since.empty() || count < entries;
    return reading;
}

} // namespace

int64_t microseconds_between(const Stamp &from, const Stamp &to) {
    return std::max<int64_t>(
        from.boot == to.boot ? to.monotonic - from.monotonic : to.realtime - from.realtime, 0);
}

Reading read_records(const Source &source, std::size_t entries,
                     const std::function<bool(const Reading &)> &enough) {
    Reading reading = read_last(source, entries);
    while (!enough(reading) && !reading.all) {
        entries *= 8;
        reading = read_last(source, entries);
    }
    return reading;
}

} // namespace ctl
