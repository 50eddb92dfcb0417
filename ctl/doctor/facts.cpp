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
                "corosync is running but does not answer: it hangs or gets no processor time",
                look};
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
    static const std::string members = "runtime.members.";
    std::map<std::string, std::string> values;
    for (const std::string &line : split(text, '\n')) {
        const std::size_t equals = line.find(" = ");
        if (equals == line.npos) {
            continue;
        }
        const std::string key = line.substr(0, line.find(" ("));
        const std::string value = values[key] = line.substr(equals + 3);
        if (key.ends_with(".nodeid")) {
            facts.listed.insert(node_id(value));
        } else if (key.starts_with(members) && value == "joined") {
            facts.ring.insert(node_id(key.substr(members.size())));
        } else if (key == "totem.crypto_cipher" || key == "totem.secauth") {
            facts.encrypted |= value != "none" && value != "off";
        }
    }
    facts.local = node_id(values["nodelist.node." + values["nodelist.local_node_pos"] + ".nodeid"]);
    facts.loss = std::chrono::milliseconds(node_id(values["runtime.config.totem.token"]) +
                                           node_id(values["runtime.config.totem.consensus"]));
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
        {{"corosync-cmapctl", "runtime.members.", "runtime.config.totem.", "nodelist.", "totem."},
         read_cmap},
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
