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

/* An entry of the daemon. */
json entry(const std::string &message) {
    return {{"MESSAGE", message},
            {"SYSLOG_IDENTIFIER", "duskvale-corosync-bridge"},
            {"_COMM", "duskvale-corosy"},
            {"_UID", "0"},
            {"_PID", "12"},
            {"SYSLOG_PID", "12"},
            {"_SYSTEMD_UNIT", unit},
            {"__REALTIME_TIMESTAMP", "1714533124000000"},
            {"_BOOT_ID", "one"},
            {"__MONOTONIC_TIMESTAMP", "5000000"}};
}

/* "remark", "nothing", or the word of the event that the table makes of it. */
std::string kind_of(const json &fields) {
    const auto record = ctl::read_record(fields);
    return record ? ctl::wording(record->event, 0).word : "nothing";
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
   which lines those are is said here, so that a change of the table is not overlooked. */
TEST(EventTable, knowsEachLineOfTheDaemon) {
    std::istringstream known(file_text(source_path("tests/unit/ctl/golden/daemon-lines")));
    std::string text;
    for (std::string kind, line; std::getline(known, kind, '\t') && std::getline(known, line);) {
        text += kind_of(entry(line)) + "\t" + line + "\n";
    }
    expect_golden("daemon-lines", text);
}
