#include "ctl/doctor/facts.h"

#include "ctl/doctor/checks.h"
#include "ctl/program.h"

#include "base/paths.h"

#include <unistd.h>

#include <cstdlib>
#include <sstream>
#include <vector>

/*
 * Corosync's own programs are asked, since they can be ended: libcpg and libcmap wait without limit
 * for a corosync that is stalled.
 */

namespace ctl {

namespace {

/* There only while systemd is the init system: sd_booted(3). */
constexpr const char *systemd_directory = "/run/systemd/system";

std::vector<std::string> split(const std::string &text, char separator) {
    std::istringstream stream(text);
    std::vector<std::string> parts;
    for (std::string part; std::getline(stream, part, separator);) {
        parts.push_back(std::move(part));
    }
    return parts;
}

/* Wide, then cut to 32 bits: an id may be written signed. */
client::NodeId node_id(const std::string &digits) {
    return static_cast<client::NodeId>(std::strtoll(digits.c_str(), nullptr, 10));
}

/* Why a program of corosync failed. Corosync answers only root, and whom its configuration names.
 */
Finding problem_of(const ProgramAnswer &program, const std::string &name) {
    constexpr const char *look = "systemctl status corosync";
    if (program.timed_out) {
        return {Level::critical, "corosync",
                "corosync is running but does not answer: it is stopped or starved", look};
    }
    if (program.err.find("CS_ERR_ACCESS") != program.err.npos ||
        program.err.ends_with("error 11")) {
        return {Level::unknown, "corosync",
                "corosync is running; it shows the ring and the group only to root", ask_as_root};
    }
    if (!corosync_is_there()) {
        return {Level::critical, "corosync", "corosync is not running",
                "systemctl start corosync; if it ends: journalctl -u corosync -e"};
    }
    return {Level::unknown, "corosync",
            "corosync could not be asked: " + name + ": " + printable(program.err), look};
}

} // namespace

/* Lines such as "nodelist.node.0.nodeid (u32) = 3", "runtime.members.3.status (str) = joined" or
 * "totem.crypto_cipher (str) = aes256". */
void read_cmap(const std::string &text, CorosyncFacts &facts) {
    std::map<std::string, client::NodeId> by_position;
    std::string local_position;
    for (const std::string &line : split(text, '\n')) {
        const std::size_t end_of_key = line.find(" (");
        const std::size_t equals = line.find(" = ");
        const std::vector<std::string> key = split(line.substr(0, end_of_key), '.');
        if (end_of_key == line.npos || equals == line.npos || key.empty()) {
            continue;
        }
        const std::string value = line.substr(equals + 3);
        const std::string &last = key.back();
        if (last == "local_node_pos") {
            local_position = value;
        } else if (key.size() == 4 && last == "nodeid") {
            by_position[key[2]] = node_id(value);
            facts.listed.insert(node_id(value));
        } else if (key.size() == 4 && last == "status" && value == "joined") {
            facts.ring.insert(node_id(key[2]));
        } else if (last == "crypto_cipher" || last == "secauth") {
            facts.encrypted |= value != "none" && value != "off";
        }
    }
    const auto local = by_position.find(local_position);
    facts.local = local != by_position.end() ? local->second : 0;
}

/* Lines of a group, a process and a node, such as "duskvale|4711|3". */
void read_groups(const std::string &text, CorosyncFacts &facts) {
    for (const std::string &line : split(text, '\n')) {
        const std::vector<std::string> columns = split(line, '|');
        if (columns.size() == 3 && columns[0] == DUSKVALE_CPG_GROUP) {
            facts.group[node_id(columns[2])].insert(columns[1]);
        }
    }
}

CorosyncFacts ask_corosync() {
    struct Question {
        std::vector<std::string> words;
        void (*read)(const std::string &, CorosyncFacts &);
    };
    static const Question questions[] = {
        {{"corosync-cmapctl", "runtime.members.", "nodelist.", "totem."}, read_cmap},
        {{"corosync-cpgtool", "-d|"}, read_groups},
    };
    CorosyncFacts facts;
    for (const auto &[words, read] : questions) {
        const ProgramAnswer program = ask_program(words);
        if (program.status != 0) {
            facts.problem = problem_of(program, words.front());
            return facts;
        }
        read(program.out, facts);
    }
    return facts;
}

static UnitFacts ask_systemd() {
    UnitFacts facts;
    facts.booted = access(systemd_directory, F_OK) == 0;
    if (!facts.booted) {
        return facts;
    }
    const ProgramAnswer systemctl =
        ask_program({"systemctl", "show", DUSKVALE_IDENT,
                     "--property=LoadState,UnitFileState,ActiveState,SubState,Result,NRestarts,"
                     "NeedDaemonReload"});
    if (systemctl.status != 0) {
        facts.fault = systemctl.err.empty() ? "no answer" : systemctl.err;
        return facts;
    }
    for (const std::string &line : split(systemctl.out, '\n')) {
        const std::size_t equals = line.find('=');
        if (equals != line.npos) {
            facts.properties[line.substr(0, equals)] = line.substr(equals + 1);
        }
    }
    return facts;
}

Facts gather_facts() {
    Facts facts;
    facts.corosync = ask_corosync();
    facts.unit = ask_systemd();
    Bus bus;
    try {
        bus.connect();
        facts.daemon = bus.read();
        facts.keeper = bus.read_keeper();
    } catch (const Problem &problem) {
        facts.daemon = problem;
    }
    return facts;
}

} // namespace ctl
