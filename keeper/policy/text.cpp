#include "keeper/policy/text.h"

#include <glib.h>

#include <array>
#include <iomanip>
#include <sstream>

namespace keeper {

namespace {

constexpr const char *prefix = "duskvale-keeper 1";
constexpr std::array words = {"unknown",      "none",     "running", "settled",    "failed",
                              "not-runnable", "stopping", "stopped", "stop-failed"};

/* Calls `field` for each field, in the order in which they travel. */
void each_field(Text &text, const auto &field) {
    Report &report = text.report;
    const auto all = [&](auto &...fields) { (field(fields), ...); };
    all(text.from, text.boot, text.sequence, text.verb, text.node, text.number, text.wrote,
        text.why, text.reason);
    all(report.master, report.frozen, report.steps.phase, report.steps.step, report.steps.status,
        report.steps.since, report.quorum, report.unfit, report.leaving, report.wanted,
        report.preferred, report.stay);
}

/* An enumerator or a time as the number that travels. */
int64_t number_of(auto value) {
    return static_cast<int64_t>(value);
}
int64_t number_of(Time value) {
    return value.count();
}

} // namespace

const char *word(Phase phase) {
    return words.at(static_cast<size_t>(phase));
}

std::string encode(Text text, Time now) {
    std::ostringstream out;
    out << prefix;
    text.report.steps.since = now - text.report.steps.since;
    each_field(text, [&out](const auto &value) {
        if constexpr (requires { value.size(); }) {
            out << ' ' << std::quoted(value);
        } else {
            out << ' ' << number_of(value);
        }
    });
    g_autofree char *valid = g_utf8_make_valid(out.str().c_str(), -1); /* the bus wants it so */
    return valid;
}

std::optional<Text> decode(const std::string &line, Time now) {
    if (!line.starts_with(prefix)) {
        return std::nullopt;
    }
    std::istringstream in(line.substr(std::string(prefix).size()));
    Text text;
    each_field(text, [&in]<typename T>(T &value) {
        int64_t number = 0;
        if constexpr (requires { value.size(); }) {
            in >> std::quoted(value);
        } else if constexpr (std::is_enum_v<T>) {
            in >> number;
            const bool known = number >= 0 && number <= number_of(T::last);
            in.setstate(known ? std::ios::goodbit : std::ios::failbit);
            value = known ? static_cast<T>(number) : T();
        } else if constexpr (std::is_same_v<T, Time>) {
            in >> number;
            value = Time(number);
        } else {
            in >> value;
        }
    });
    text.report.steps.since = now - text.report.steps.since;
    return in ? std::optional(text) : std::nullopt;
}

} // namespace keeper
