/* history and why over journals of real nodes, and the table against the sources of all lines. */
#include "ctl/golden.h"

#include "ctl/history/last-change.h"
#include "ctl/history/sentence.h"

#include <map>
#include <set>

using nlohmann::json;

namespace {

constexpr const char *unit = "duskvale-corosync-bridge.service";
constexpr const char *journal_path = "/mnt/journal";

/* One case after another, as a night of three nodes: what each has added to its journal. */
std::vector<std::string> cases() {
    std::set<std::string> names;
    for (const auto &file :
         std::filesystem::directory_iterator(source_path("tests/unit/ctl/journals"))) {
        names.insert(file.path().stem());
    }
    return {names.begin(), names.end()};
}

std::string journal_of(const std::string &name, int node) {
    const auto path = source_path("tests/unit/ctl/journals/" + name + "." + std::to_string(node));
    return std::filesystem::exists(path) ? file_text(path) : "";
}

/* An entry of the daemon; fields that are named in `others` replace its own. */
json entry(const std::string &message, const json &others = json::object()) {
    json fields = {{"MESSAGE", message},
                   {"SYSLOG_IDENTIFIER", "duskvale-corosync-bridge"},
                   {"_COMM", "duskvale-corosy"},
                   {"_UID", "0"},
                   {"_PID", "12"},
                   {"SYSLOG_PID", "12"},
                   {"_SYSTEMD_UNIT", unit},
                   {"__REALTIME_TIMESTAMP", "1714533124000000"},
                   {"_BOOT_ID", "one"},
                   {"__MONOTONIC_TIMESTAMP", "5000000"}};
    fields.update(others);
    return fields;
}

const json from_output = {{"_COMM", "logger"}, {"SYSLOG_PID", "12-stdout"}};
const json from_script = {{"_COMM", "stop-steps"}, {"SYSLOG_IDENTIFIER", "stop-steps"}};

/* "remark", "nothing", or the word of the event that the table makes of it. */
std::string kind_of(const json &fields) {
    const auto record = ctl::read_record(fields);
    return record ? ctl::wording(record->event, 0).word : "nothing";
}

/* What printf could write for `format`. */
std::string filled(std::string format) {
    format = std::regex_replace(format, std::regex(R"(%(\.\*)?[cs])"), "x");
    return std::regex_replace(format, std::regex("%-?[0-9]*[zl]*[ud]"), "7");
}

/* Each line that the macros of the daemon's sources can log, as it reaches the journal. */
std::set<std::string> daemon_lines() {
    std::set<std::string> lines;
    const std::regex function(R"(^[A-Za-z].*?(\w+)\(.*$)");
    const std::regex call(
        R"re(DUSKVALE_(ERR|WARN|INFO|DBG)\((LogCategory::cpg, )?\s*"((?:[^"\\]|\\.)*)")re");
    for (const auto &file : std::filesystem::recursive_directory_iterator(source_path("src"))) {
        if (file.path().extension() != ".cpp") {
            continue;
        }
        /* A literal that goes on in the next line is one; so is a call. */
        std::string text =
            std::regex_replace(file_text(file.path()), std::regex("\"\\s*\n\\s*\""), "");
        text = std::regex_replace(text, std::regex("\\(\n\\s*"), "(");
        std::istringstream source(text);
        std::string name;
        for (std::string line; std::getline(source, line);) {
            std::smatch match;
            if (std::regex_search(line, match, function) && line.find("define") != 0) {
                name = match[1];
            }
            if (!std::regex_search(line, match, call)) {
                continue;
            }
            std::string format = filled(match[3]);
            format = std::regex_replace(format, std::regex(R"(\\n$)"), "");
            if (match[1] == "ERR") {
                lines.insert("ERR(" + name + "):" + format);
            } else if (match[1] != "DBG") {
                lines.insert(match[1].str() + ": " + format);
            } else if (match[2].matched) {
                lines.insert("DBG(CPG): " + name + ": " + format);
            }
        }
    }
    return lines;
}

} // namespace

TEST(Why, answersOnEachNodeAfterEachCase) {
    std::string text;
    std::map<int, std::string> journals;
    for (const std::string &name : cases()) {
        text += "### " + name + "\n";
        for (const int node : {1, 2, 3}) {
            journals[node] += journal_of(name, node);
            std::ofstream(journal_path) << journals[node];
            text += "node " + std::to_string(node) + "\n" +
                    duskvalectl({"why", std::string("--log=") + journal_path}).out;
        }
    }
    EXPECT_EQ(text.find("shows no change"), std::string::npos);
    expect_golden("why", text);
}

/* Journals that no node wrote: with lines of others that look like the daemon's and its keeper's,
   with lists that belong to no change of the group, and with a daemon's last words behind systemd's
   report of its end. */
TEST(History, believesOnlyWhoItIsAboutAndPutsThingsInOrder) {
    std::string text;
    for (const std::string name :
         {"forged", "lists", "late-words", "apart", "one-by-one", "own-answer"}) {
        const std::string log =
            "--log=" + source_path("tests/unit/ctl/journals-edited/" + name).string();
        text += "### " + name + "\n" + duskvalectl({"history", log}).out +
                duskvalectl({"why", log}).out;
    }
    expect_golden("history-edited", text);
}

TEST(History, wordsEachEventAndSpeaksJson) {
    std::string text;
    for (const char *name : {"00-start", "01-kill", "05-split-brain", "12-unfreeze"}) {
        std::ofstream(journal_path) << journal_of(name, 2);
        text += "### " + std::string(name) + "\n" +
                duskvalectl({"history", std::string("--log=") + journal_path}).out;
    }
    expect_golden("history", text);
    std::ofstream(journal_path) << journal_of("00-start", 1) + journal_of("01-kill", 1);
    expect_golden("history.json",
                  session({{"history", "--last=9", "--json", std::string("--log=") + journal_path},
                           {"why", "--json", std::string("--log=") + journal_path}}));
}

TEST(History, saysWhatIsWrongWithALog) {
    std::ofstream(journal_path) << "root:x:0:0\n";
    expect_session("journal-faults");
}

/* A line that the table does not know is shown in the words of the daemon, so none is lost; but
   which lines those are is said here, so that a changed one is not overlooked. */
TEST(EventTable, knowsEachLineOfTheDaemon) {
    std::string text;
    for (const std::string &line : daemon_lines()) {
        text += kind_of(entry(line)) + "\t" + line + "\n";
    }
    text += kind_of(entry("\t[7] joined: nodeid=7 pid=7 reason=7", from_output)) + "\n";
    text += kind_of(entry("\t[7] left: nodeid=7 pid=7 reason=7", from_output)) + "\n";
    expect_golden("daemon-lines", text);
    EXPECT_THAT(file_text(source_path("src/cpg/duskvale-cpg.cpp")),
                HasSubstr(R"(] %s: nodeid=%u pid=%u reason=%u\n")"));
    for (const char *script : {"data/stop-steps", "data/wait-for-ring"}) {
        const std::string source = file_text(source_path(script));
        const std::regex says(R"re(^ *(?:\S+\) )?(info|warn|err) "(.*?)")re",
                              std::regex::ECMAScript | std::regex::multiline);
        for (std::sregex_iterator at(source.begin(), source.end(), says), end; at != end; ++at) {
            const std::string level = (*at)[1] == "info"   ? "INFO: "
                                      : (*at)[1] == "warn" ? "WARN: "
                                                           : "ERR(stop-steps):";
            EXPECT_EQ(kind_of(entry(level + (*at)[2].str(), from_script)), "remark") << (*at)[2];
        }
    }
}
