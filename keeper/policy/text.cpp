#include "keeper/policy/text.h"

#include <glib.h>

#include <algorithm>
#include <array>
#include <iomanip>
#include <sstream>
#include <tuple>

namespace keeper {

namespace {

constexpr const char *prefix = "duskvale-keeper 1 ";
/* In the order of the variant and of the enum. */
constexpr std::array kinds = {"report", "settle", "cleared", "move", "done"};
constexpr std::array phases = {"unknown",      "none",     "running", "settled",    "failed",
                               "not-runnable", "stopping", "stopped", "stop-failed"};

/* What travels of each structure. */
template <typename C>
auto fields(C &content) {
    if constexpr (requires { content.hello; }) {
        auto &steps = content.steps;
        return std::tie(content.master, content.frozen, steps.phase, steps.step, steps.status,
                        steps.since, content.quorum, content.unfit, content.leaving, content.wanted,
                        content.preferred, content.stay, content.hello);
    } else if constexpr (requires { content.wrote; }) {
        return std::tie(content.settle, content.wrote);
    } else if constexpr (requires { content.why; }) {
        return std::tie(content.why, content.target);
    } else if constexpr (requires { content.by; }) {
        return std::tie(content.by, content.request, content.failure);
    } else {
        return std::tie();
    }
}

template <typename T>
void put(std::ostream &out, const T &value) {
    if constexpr (std::is_same_v<T, std::string>) {
        out << ' ' << std::quoted(value);
    } else if constexpr (std::is_enum_v<T>) {
        out << ' ' << static_cast<int>(value);
    } else if constexpr (std::is_same_v<T, Time>) {
        out << ' ' << value.count();
    } else {
        out << ' ' << value;
    }
}

template <typename T>
void get(std::istream &in, T &value) {
    int64_t number = 0;
    if constexpr (std::is_same_v<T, std::string>) {
        in >> std::quoted(value);
    } else if constexpr (std::is_enum_v<T>) {
        in >> number;
        const bool known = number >= 0 && number <= static_cast<int64_t>(T::last);
        in.setstate(known ? std::ios::goodbit : std::ios::failbit);
        value = known ? static_cast<T>(number) : T();
    } else if constexpr (std::is_same_v<T, Time>) {
        in >> number;
        value = Time(number);
    } else {
        in >> value;
    }
}

/* A point of time becomes an age, and an age a point of time. */
Content turn_times(Content content, Time now) {
    if (auto *report = std::get_if<Report>(&content)) {
        report->steps.since = now - report->steps.since;
    }
    return content;
}

} // namespace

const char *word(Phase phase) {
    return phases.at(static_cast<size_t>(phase));
}

std::string encode(const Text &text, Time now) {
    std::ostringstream out;
    out << prefix << text.from << ' ' << text.boot << ' ' << text.sequence << ' '
        << kinds.at(text.content.index());
    const auto each = [&out](const auto &...values) { (put(out, values), ...); };
    std::visit([&](const auto &content) { std::apply(each, fields(content)); },
               turn_times(text.content, now));
    g_autofree char *valid = g_utf8_make_valid(out.str().c_str(), -1); /* the bus wants it so */
    return valid;
}

std::optional<Text> decode(const std::string &line, Time now) {
    if (!line.starts_with(prefix)) {
        return std::nullopt;
    }
    std::istringstream in(line.substr(std::string(prefix).size()));
    std::string kind;
    Text text;
    in >> text.from >> text.boot >> text.sequence >> kind;
    const Content contents[] = {Report(), Settle(), Cleared(), MoveRequest(), MoveDone()};
    const auto index = static_cast<size_t>(std::ranges::find(kinds, kind) - kinds.begin());
    if (!in || index == kinds.size()) {
        return std::nullopt;
    }
    text.content = contents[index];
    const auto each = [&in](auto &...values) { (get(in, values), ...); };
    std::visit([&](auto &content) { std::apply(each, fields(content)); }, text.content);
    text.content = turn_times(text.content, now);
    return in ? std::optional(text) : std::nullopt;
}

} // namespace keeper
