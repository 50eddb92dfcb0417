#include "ctl/doctor/corosync-view.h"

#include "ctl/ask/corosync-probe.h"
#include "ctl/doctor/program.h"

#include "base/paths.h"

#include <cstdlib>
#include <optional>
#include <regex>
#include <sstream>

namespace ctl {

namespace {

/* Wide, then cut to 32 bits: an id may be written signed. */
uint32_t node_id(const std::string &digits) {
    return static_cast<uint32_t>(std::strtoll(digits.c_str(), nullptr, 10));
}

bool asked(const std::vector<std::string> &words, CorosyncView &view, std::string &out) {
    ProgramAnswer program = ask_program(words);
    if (program.good()) {
        view.answer = CorosyncAnswer::given;
        out = std::move(program.out);
        return true;
    }
    static const std::regex refused("CS_ERR_ACCESS|error 11$");
    if (program.end == ProgramAnswer::End::timed_out) {
        view.answer = CorosyncAnswer::none_in_time;
    } else if (std::regex_search(program.err, refused)) {
        view.answer = CorosyncAnswer::not_permitted;
    } else {
        view.answer = CorosyncAnswer::failed;
        view.fault = words.front() + ": " + program.err;
    }
    return false;
}

} // namespace

void read_cmap(const std::string &text, CorosyncView &view) {
    static const std::regex entry(R"(^(\S+) \(\w+\) = (.*)$)");
    static const std::regex listed(R"(nodelist\.node\.(\d+)\.nodeid)");
    static const std::regex status(R"(runtime\.members\.(\d+)\.status)");
    std::map<std::string, uint32_t> by_position;
    std::optional<std::string> local_position;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        std::smatch parts;
        if (!std::regex_match(line, parts, entry)) {
            continue;
        }
        const std::string key = parts[1];
        const std::string value = parts[2];
        std::smatch number;
        if (key == "nodelist.local_node_pos") {
            local_position = value;
        } else if (std::regex_match(key, number, listed)) {
            by_position[number[1]] = node_id(value);
            view.listed.insert(node_id(value));
        } else if (std::regex_match(key, number, status) && value == "joined") {
            view.ring.insert(node_id(number[1]));
        }
    }
    if (local_position && by_position.contains(*local_position)) {
        view.local = by_position[*local_position];
    }
}

void read_groups(const std::string &text, CorosyncView &view) {
    static const std::regex member("^" DUSKVALE_CPG_GROUP R"(\|(\d+)\|(-?\d+)$)");
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        std::smatch parts;
        if (std::regex_match(line, parts, member)) {
            view.group[node_id(parts[2])].insert(parts[1]);
        }
    }
}

CorosyncView view_corosync() {
    CorosyncView view;
    if (!corosync_is_there()) {
        view.answer = CorosyncAnswer::not_running;
        return view;
    }
    std::string out;
    if (asked({"corosync-cmapctl", "runtime.members.", "nodelist."}, view, out)) {
        read_cmap(out, view);
        if (asked({"corosync-cpgtool", "-d|"}, view, out)) {
            read_groups(out, view);
        }
    }
    return view;
}

} // namespace ctl
