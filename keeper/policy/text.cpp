#include "keeper/policy/text.h"

#include <glib.h>

#include <iomanip>
#include <sstream>

namespace keeper {

static const std::string prefix = "duskvale-keeper 1";

/* Calls `field` for each field, in the order in which they travel: numbers and texts. */
static void each_field(Text &text, const auto &field) {
    const auto all = [&](auto &...fields) { (field(fields), ...); };
    Report &report = text.report;
    all(text.from, text.boot, text.sequence, text.hello, report.request.target, report.request.why,
        report.request.number, report.master, report.steps.phase, report.steps.step,
        report.steps.status, report.steps.since, report.quorum, report.unfit, report.leaving,
        report.wanted, report.preferred, report.settling, report.stay);
}

std::string encode(Text text, Time now) {
    std::ostringstream out;
    out << prefix;
    text.report.steps.since = now - text.report.steps.since;
    each_field(text, [&out]<typename T>(const T &value) {
        if constexpr (std::is_same_v<T, std::string>) {
            out << ' ' << std::quoted(value);
        } else if constexpr (std::is_same_v<T, Time>) {
            out << ' ' << value.count();
        } else {
            out << ' ' << static_cast<int64_t>(value);
        }
    });
    g_autofree char *valid = g_utf8_make_valid(out.str().c_str(), -1); /* the bus wants it so */
    return valid;
}

std::optional<Text> decode(const std::string &line, Time now) {
    Text text;
    bool good = line.starts_with(prefix);
    std::istringstream in(good ? line.substr(prefix.size()) : "");
    each_field(text, [&]<typename T>(T &value) {
        if constexpr (std::is_same_v<T, std::string>) {
            in >> std::quoted(value);
        } else {
            int64_t number = 0;
            in >> number;
            value = static_cast<T>(number);
            if constexpr (std::is_enum_v<T>) {
                good = good && value >= T() && value <= T::last;
            }
        }
    });
    text.report.steps.since = now - text.report.steps.since;
    text.report.request.from = text.from;
    return good && in ? std::optional(text) : std::nullopt;
}

} // namespace keeper
