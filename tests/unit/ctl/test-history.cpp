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

TEST(Why, findsTheLastWordsOfADaemonBehindSystemdsReportOfItsEnd) {
    const std::string journal = journal_of("05-split-brain", 1);
    const size_t report = journal.rfind('\n', journal.find("Main process exited")) + 1;
    const size_t words = journal.rfind('\n', report - 2) + 1;
    const size_t behind = journal.find('\n', report) + 1;
    std::ofstream(journal_path) << journal.substr(0, words) +
                                       journal.substr(report, behind - report)
                                << journal.substr(words, report - words) + journal.substr(behind);
    EXPECT_THAT(duskvalectl({"why", std::string("--log=") + journal_path}).out,
                HasSubstr("SPLIT BRAIN: node 2 named node 2 as master"));
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
    expect_golden("journal-faults", session({{"why", std::string("--log=") + journal_path},
                                             {"history", std::string("--log=") + journal_path},
                                             {"why", "--log=/dev/null"},
                                             {"why", "--json", "--log=/dev/null"},
                                             {"history", "--log=/dev/null"},
                                             {"why", "--log=/nonexistent"}}));
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

TEST(EventTable, believesOnlyTheDaemonItsUnitAndRoot) {
    const std::string line = "INFO: From 3: UNFROZEN master -- start election";
    EXPECT_EQ(kind_of(entry(line)), "frozen-master");
    for (const json &other :
         {json{{"_UID", "1000"}}, json{{"_COMM", "logger"}}, json{{"_SYSTEMD_UNIT", "x.service"}},
          json{{"SYSLOG_IDENTIFIER", "x"}}, json{{"_COMM", "stop-steps"}}}) {
        EXPECT_EQ(kind_of(entry(line, other)), "nothing") << other;
    }
    const json exited = {{"_PID", "1"},
                         {"SYSLOG_IDENTIFIER", "systemd"},
                         {"UNIT", unit},
                         {"MESSAGE_ID", "98e322203f7a4ed290d09fe03c09fe15"},
                         {"COMMAND", "ExecStart"},
                         {"EXIT_CODE", "killed"},
                         {"EXIT_STATUS", "9"}};
    EXPECT_EQ(kind_of(entry("", exited)), "daemon-ended");
    for (const json &other : {json{{"_PID", "2"}}, json{{"UNIT", "x.service"}}}) {
        json fields = exited;
        fields.update(other);
        EXPECT_EQ(kind_of(entry("", fields)), "nothing") << other;
    }
    EXPECT_EQ(kind_of(entry("\t[0] left: nodeid=2 pid=7 reason=3")), "remark");
    const json by_keeper = {{"SYSLOG_IDENTIFIER", "duskvale-keeper"}, {"_COMM", "duskvale-keeper"}};
    EXPECT_EQ(kind_of(entry("QUORUM: lost", by_keeper)), "keeper");
    EXPECT_EQ(kind_of(entry("QUORUM: lost", {{"SYSLOG_IDENTIFIER", "duskvale-keeper"}})),
              "nothing");
    EXPECT_EQ(kind_of(entry("root asks: prefer on",
                            {{"SYSLOG_IDENTIFIER", "duskvalectl"}, {"_COMM", "duskvalectl"}})),
              "request");
    /* What is not plain text comes as its bytes. */
    json bytes = entry("");
    bytes["MESSAGE"] = {73, 78, 70, 79, 58, 32, 83, 116, 97, 114, 116, 105, 110, 103};
    EXPECT_EQ(kind_of(bytes), "daemon-started");
}

TEST(GroupLists, belongToTheChangeBeforeThemOrToNone) {
    const ctl::Record change{{1'000'000, 1'000'000, "one"}, 12, ctl::GroupChanged{}};
    const ctl::Record said{{1'001'000, 1'001'000, "one"}, 12, ctl::Remark{}};
    ctl::Record left{{1'002'000, 1'002'000, "one"}, 12, ctl::Left{3, 0, ctl::Reason::node_down}};
    const auto placed = ctl::place_group_lists({change, said, left, left});
    ASSERT_EQ(placed.size(), 3U);
    EXPECT_EQ(placed[0].time.realtime, 1'000'000);
    EXPECT_TRUE(std::holds_alternative<ctl::Left>(placed[1].event));
    EXPECT_TRUE(std::holds_alternative<ctl::Remark>(placed[2].event));
    left.daemon = 13;
    EXPECT_EQ(ctl::place_group_lists({change, left}).size(), 1U);
    left.daemon = 12;
    left.time.monotonic += 10'000'000;
    EXPECT_EQ(ctl::place_group_lists({change, left}).size(), 1U);
    EXPECT_TRUE(ctl::place_group_lists({left}).empty());
}
