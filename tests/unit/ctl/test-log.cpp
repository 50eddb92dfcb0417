/* The daemon's log in an operator's words: lines, events, episodes, and what why and history say.
 */
#include "ctl/golden.h"

#include "ctl/log/event.h"
#include "ctl/log/line.h"

#include <glib.h>

using namespace ctl;

namespace {

std::string log_path(const std::string &name) {
    return source_path("tests/unit/ctl/logs/" + name);
}

/* All sources of the daemon, with string literals that go on over lines joined into one. */
std::string daemon_sources() {
    std::string text =
        file_text(source_path("data/stop-steps")) + file_text(source_path("data/wait-for-ring"));
    for (const auto &entry : std::filesystem::recursive_directory_iterator(source_path("src"))) {
        if (entry.path().extension() == ".cpp") {
            text += std::regex_replace(file_text(entry.path()), std::regex("\"\\s*\n\\s*\""), "");
        }
    }
    return text;
}

/* history over each case of logs/cases.txt, as one text. */
std::string history_of_cases() {
    std::istringstream cases(file_text(log_path("cases.txt")));
    std::string result;
    std::string log;
    const auto tell = [&] {
        const std::string path = "/mnt/case.log";
        std::ofstream(path) << log;
        log.clear();
        return duskvalectl({"history", "--log", path}).out;
    };
    for (std::string line; std::getline(cases, line);) {
        if (line.starts_with("### ")) {
            result += (result.empty() ? "" : tell() + "\n") + line + "\n";
        } else {
            log += line + "\n";
        }
    }
    return result + tell();
}

} // namespace

TEST(LogLine, isTakenApartInEveryFormItIsMetIn) {
    setenv("TZ", "UTC", 1);
    constexpr int64_t second = 1'000'000;
    constexpr int64_t day = 86400 * second;
    const int64_t at = 1714533124 * second; /* 2024-05-01 03:12:04 */
    const Clocks now{at + 3600 * second, 5000 * second};
    const std::tuple<const char *, std::optional<int64_t>, const char *> cases[] = {
        {"INFO: Starting", std::nullopt, ""},
        {"2024-05-01T03:12:04.250000+0000 node1 duskvale-corosync-bridge[12]: INFO: Starting",
         at + 250000, "duskvale-corosync-bridge"},
        {"2024-05-01T05:12:04+02:00 node1 duskvale-corosync-bridge[12]: INFO: Starting", at,
         "duskvale-corosync-bridge"},
        {"2024-05-01 03:12:04,5 INFO: Starting", at + 500000, ""},
        {"2024-05-01T03:12:04Z INFO: Starting", at, ""},
        {"May  1 03:12:04 node1 duskvale-corosync-bridge[12-stderr]: INFO: Starting", at,
         "duskvale-corosync-bridge"},
        {"May 02 03:12:04.5 node1 otherd: INFO: Starting", at + day + 500000, "otherd"},
        /* More than a day ahead of the clock: last year's. */
        {"May 03 03:12:04 node1 otherd: INFO: Starting", at - 364 * day, "otherd"},
        {"Feb 29 03:12:04 node1 otherd: INFO: Starting", at - 62 * day, "otherd"},
        {"1714533124.250000 node1 duskvale-corosync-bridge[12]: INFO: Starting", at + 250000,
         "duskvale-corosync-bridge"},
        {"[ 1401.000001] node1 systemd[1]: INFO: Starting", at + second + 1, "systemd"},
        {"1400.000000  INFO: Starting", at, ""},
        /* From another system that has been up for longer. */
        {"6000.000000  INFO: Starting", std::nullopt, ""},
        {R"({"MESSAGE":"INFO: Starting","SYSLOG_IDENTIFIER":"x","__REALTIME_TIMESTAMP":"7000001"})",
         7000001, "x"},
        {R"({"MESSAGE":"INFO: Starting","__REALTIME_TIMESTAMP":"9223372036854775807"})",
         std::nullopt, ""},
        {"999999999999.000000 INFO: Starting", std::nullopt, ""},
        {"2024-13-01T03:12:04Z INFO: Starting", std::nullopt, ""},
        {R"({"MESSAGE":[73,78,70,79,58,32,83,116,97,114,116,105,110,103]})", std::nullopt, ""},
    };
    for (const auto &[text, time, source] : cases) {
        const LogLine line = parse_log_line(text, now);
        EXPECT_EQ(line.time, time) << text;
        EXPECT_EQ(line.source, source) << text;
        EXPECT_EQ(line.text, "INFO: Starting") << text;
    }
    for (const char *odd : {"", "{", "{\"MESSAGE\":null}", "[]", "{\"MESSAGE\":{}}", "\xff\xfe"}) {
        EXPECT_FALSE(parse_event(parse_log_line(odd, now))) << odd;
    }
}

TEST(LogEvents, areReadFromLinesThatTheDaemonWrites) {
    const std::string sources = daemon_sources();
    const std::regex conversion("%(z?[ud]|lu|s|c)");
    for (const EventFormat &format : event_formats()) {
        const std::string text = format.format;
        if (format.function != nullptr) {
            EXPECT_NE(sources.find(format.function), std::string::npos) << format.function;
        }
        if (*format.level == '\0' || text == "%s") {
            continue; /* not the daemon's, or nothing to find */
        }
        const bool shell =
            text.starts_with("stop-steps") || text.starts_with("wait-for-ring") ||
            (format.function != nullptr && std::string(format.function) == "stop-steps");
        if (!shell) {
            EXPECT_NE(sources.find(text + "\\n"), std::string::npos) << text;
            continue;
        }
        std::sregex_token_iterator part(text.begin(), text.end(), conversion, -1);
        for (; part != std::sregex_token_iterator(); ++part) {
            EXPECT_NE(sources.find(*part), std::string::npos) << text;
        }
    }
}

TEST(History, tellsEachLogInEpisodes) {
    /* Requests, elections, steps and refusals; an eventful night; debug lines, and no times. */
    for (const std::string name : {"requests", "night", "debug"}) {
        expect_golden("history-" + name,
                      duskvalectl({"history", "--log", log_path(name + ".log")}).out);
    }
    expect_golden("history-cases", history_of_cases());
}

TEST(History, showsTheLastAndSpeaksJson) {
    const std::string log = log_path("requests.log");
    const Outcome all = duskvalectl({"history", "--log", log});
    const Outcome last = duskvalectl({"history", "--last=2", "--log", log});
    EXPECT_TRUE(all.out.ends_with(last.out));
    EXPECT_EQ(last.out.find("\n2024"), last.out.rfind("\n2024")) << last.out;
    expect_golden("history.json", duskvalectl({"history", "--last=3", "--json", "--log", log}).out);
}

TEST(Why, answersForTheLastChangeOfRole) {
    std::string text;
    for (const char *name : {"requests.log", "night.log", "debug.log"}) {
        text += std::string("### ") + name + "\n";
        text += duskvalectl({"why", "--log", log_path(name)}).out + "\n";
    }
    expect_golden("why", text);
    expect_golden("why.json", duskvalectl({"why", "--json", "--log", log_path("night.log")}).out);
}

TEST(Why, saysWhenThereIsNothingToTell) {
    expect_golden("why-nothing", session({{"why", "--log=/dev/null"},
                                          {"why", "--json", "--log=/dev/null"},
                                          {"history", "--log=/dev/null"},
                                          {"history", "--json", "--log=/dev/null"},
                                          {"why", "--log=/nonexistent"},
                                          {"why", "--log=/"}}));
}

TEST(Journal, isReadForTheUnitAndItsFaultsAreTold) {
    /* journalctl itself needs a journal; what matters here is what it is asked. */
    const std::string directory = "/mnt";
    const std::string journalctl = directory + "/journalctl";
    const std::string old_path = std::getenv("PATH");
    setenv("PATH", (directory + ":" + old_path).c_str(), 1);
    std::ofstream(journalctl)
        << "#!/bin/sh\n"
           "case \" $* \" in *' --since=never '*) exit 0 ;; *' --since=bad '*) exit 1 ;; esac\n"
           "echo \"$@\" >&2\n"
           "echo '{\"MESSAGE\":\"INFO: "
           "Starting\",\"__REALTIME_TIMESTAMP\":\"1714533124000000\"}'\n";
    std::filesystem::permissions(journalctl, std::filesystem::perms::owner_all);
    expect_golden("journal", session({{"history"},
                                      {"history", "--since=yesterday"},
                                      {"why", "--since=never"},
                                      {"why", "--since=bad"}}));
    setenv("PATH", directory.c_str(), 1);
    std::filesystem::remove(journalctl);
    EXPECT_EQ(duskvalectl({"why"}).status, 1);
    setenv("PATH", old_path.c_str(), 1);
}
