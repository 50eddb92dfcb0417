#include "base/glib-log.h"
#include "base/log.h"
#include "support/capture.h"
#include "support/child.h"
#include "support/syslog-socket.h"

#include <glib.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <string>
#include <utility>

TEST(LogLine, CarriesThePrefixOfItsKindAndNothingElse) {
    Capture err;
    DUSKVALE_ERR("no %s", "newline");
    DUSKVALE_WARN("%d\n", 1);
    DUSKVALE_INFO("plain\n");
    duskvale_debug_set_categories(1 << 2);
    duskvale_debug_set_level(LOG_DEBUG);
    DUSKVALE_DBG(LogCategory::cpg_glib, "\n");
    DUSKVALE_DBG(LogCategory::cpg, "of a category that is off\n");
    duskvale_debug_set_level(LOG_INFO);
    DUSKVALE_DBG(LogCategory::cpg_glib, "of too low a level\n");
    EXPECT_EQ(err.text(), "ERR(TestBody):no newlineWARN: 1\n"
                          "INFO: plain\nDBG(CPG_GLIB): TestBody: \n");
}

TEST(GLibLog, WritesTenWarningsAMinuteAndWhatIsWorse) {
    Child child([] {
        g_log_set_always_fatal(static_cast<GLogLevelFlags>(G_LOG_FATAL_MASK));
        duskvale_limit_glib_log();
        for (int i = 0; i < 1000; i++) {
            g_warning("of a stranger");
        }
        g_critical("worse");
    });
    EXPECT_EQ(child.end(), 0);
    const std::string text = child.stderr_text();
    EXPECT_NE(text.find("stranger (others are left out for up to a minute)"), text.npos) << text;
    EXPECT_EQ(std::ranges::count(text, '*'), 11 * 4) << text;
}

TEST(Syslog, FilesLinesUnderTheNamedFacilityWhateverItsCase) {
    const std::pair<const char *, int> facilities[] = {
        {"kern", 0},     {"user", 1},    {"mail", 2},    {"daemon", 3},  {"auth", 4},
        {"syslog", 5},   {"lpr", 6},     {"news", 7},    {"uucp", 8},    {"cron", 9},
        {"ftp", 11},     {"local0", 16}, {"local1", 17}, {"local2", 18}, {"local3", 19},
        {"local4", 20},  {"Local5", 21}, {"LOCAL6", 22}, {"local7", 23}, {"authpriv", 10},
        {"security", 4},
    };
    SyslogSocket syslog;
    Child child([&] {
        for (const auto &[name, number] : facilities) {
            if (duskvale_debug_syslog("ident", name) != 0) {
                _exit(1);
            }
            DUSKVALE_WARN("%s\n", name);
        }
    });
    const std::string sender = "ident[" + std::to_string(child.id()) + "]: WARN: ";
    for (const auto &[name, number] : facilities) {
        const std::string priority = std::to_string(number * 8 + LOG_WARNING);
        ASSERT_TRUE(syslog.got("<" + priority + ">" + sender + name + "\n")) << syslog.all();
    }
    EXPECT_EQ(child.end(), 0);
    EXPECT_EQ(child.stderr_text(), "");
}

TEST(Syslog, StaysOnStandardErrorForAnUnknownFacility) {
    for (const std::string name : {"nosuch", "mark", "", "local8", "local"}) {
        Capture err;
        EXPECT_EQ(duskvale_debug_syslog("ident", name.c_str()), -EINVAL);
        DUSKVALE_INFO("still here\n");
        EXPECT_EQ(err.text(), "ERR(duskvale_debug_syslog):Unknown syslog facility '" + name +
                                  "'INFO: still here\n");
    }
}

TEST(Redirect, ReachesTheProgramsThatAreStartedAlsoWhereDescriptorsWereClosedBefore) {
    SyslogSocket syslog;
    Child child([] {
        close(STDIN_FILENO);
        close(STDOUT_FILENO);
        _exit(duskvale_debug_redirect("local5", "bridge") == 0 ? system("echo a step") : 1);
    });
    const std::string tag = "bridge[" + std::to_string(child.id()) + "-stdout]";
    EXPECT_EQ(child.end(), 0);
    EXPECT_TRUE(syslog.got("<174>" + tag + ": a step")) << syslog.all();
}

TEST(Redirect, LeavesTheDescriptorsWhenALoggerCannotBeStarted) {
    Child child([] {
        redirect_tosyslog(STDERR_FILENO, "local5", LOG_DEBUG + 1, "tag");
        fputs("\n", stderr);
        const rlimit none_left{3, 3};
        setrlimit(RLIMIT_NOFILE, &none_left);
        _exit(duskvale_debug_redirect("local5", "bridge") == -EMFILE ? 0 : 1);
    });
    const std::string tag = "bridge[" + std::to_string(child.id()) + "-stdout]";
    EXPECT_EQ(child.end(), 0);
    EXPECT_EQ(child.stderr_text(),
              "ERR(redirect_tosyslog):Priority code 8 too large\n"
              "ERR(redirect_tosyslog):Failed running 'logger -p 'local5.info' -t '" +
                  tag + "'': Too many open files");
}
