#include "base/log.h"
#include "support/capture.h"
#include "support/child.h"
#include "support/syslog-socket.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cerrno>
#include <string>
#include <utility>
#include <vector>

TEST(DebugGate, AsksTheCategoryBitFirstAndThenTheLevel) {
    struct {
        int32_t mask;
        int level;
        int category;
        int passes;
    } const cases[] = {
        {0x40, 7, 6, 1}, {0x40, 7, 5, 0},  {0x7E, 6, 1, 0}, {0x7E, 6, 6, 0},
        {0x3E, 7, 1, 1}, {0x3E, 7, 5, 1},  {0x3E, 7, 6, 0}, {0, 1000, 3, 0},
        {-1, 7, 31, 1},  {0xFF, -1, 3, 0}, {0xFF, 8, 3, 1}, {1 << 30, 7, 30, 1},
    };
    for (const auto &c : cases) {
        duskvale_debug_set_categories(c.mask);
        duskvale_debug_set_level(c.level);
        EXPECT_EQ(duskvale_debug(LOG_DEBUG, c.category), c.passes)
            << std::hex << c.mask << " level " << c.level << " category " << c.category;
        EXPECT_EQ(duskvale_debug_get_categories(), c.mask);
        EXPECT_EQ(duskvale_debug_get_level(), c.level);
    }
}

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

TEST(Syslog, FilesLinesUnderTheNamedFacilityWhateverItsCase) {
    const std::vector<std::pair<const char *, int>> facilities = {
        {"kern", 0},      {"user", 8},      {"mail", 16},    {"daemon", 24},  {"auth", 32},
        {"security", 32}, {"syslog", 40},   {"lpr", 48},     {"news", 56},    {"uucp", 64},
        {"cron", 72},     {"authpriv", 80}, {"ftp", 88},     {"local0", 128}, {"local1", 136},
        {"local2", 144},  {"local3", 152},  {"local4", 160}, {"Local5", 168}, {"LOCAL6", 176},
        {"local7", 184},
    };
    SyslogSocket syslog;
    Child child([&] {
        for (const auto &[name, code] : facilities) {
            if (duskvale_debug_syslog("ident", name) != 0) {
                _exit(1);
            }
            DUSKVALE_WARN("%s\n", name);
        }
    });
    const std::string sender = "ident[" + std::to_string(child.id()) + "]: WARN: ";
    for (const auto &[name, code] : facilities) {
        EXPECT_TRUE(
            syslog.got("<" + std::to_string(code + LOG_WARNING) + ">" + sender + name + "\n"))
            << name << " among " << syslog.all();
    }
    EXPECT_EQ(child.end(), 0);
    EXPECT_EQ(child.stderr_text(), "");
}

TEST(Syslog, StaysOnStandardErrorForAnUnknownFacility) {
    for (const char *name : {"nosuch", "mark", "", "local8", "local"}) {
        Capture err;
        EXPECT_EQ(duskvale_debug_syslog("ident", name), -22);
        DUSKVALE_INFO("still here\n");
        EXPECT_EQ(err.text(), "ERR(duskvale_debug_syslog):Unknown syslog facility '" +
                                  std::string(name) + "'INFO: still here\n");
    }
}

TEST(Redirect, CarriesStandardOutputAndErrorIntoSyslog) {
    SyslogSocket syslog;
    Child child([] {
        if (duskvale_debug_syslog("bridge", "LOCAL3") != 0 ||
            duskvale_debug_redirect("LOCAL3", "bridge") != 0) {
            _exit(1);
        }
        puts("a list of members");
        errno = EACCES;
        perror("pid file");
        DUSKVALE_INFO("our own line\n");
    });
    const std::string name = "bridge[" + std::to_string(child.id());
    for (const std::string &record : {"<158>" + name + "-stdout]: redirected stdout",
                                      "<158>" + name + "-stdout]: a list of members",
                                      "<157>" + name + "-stderr]: redirected stderr",
                                      "<157>" + name + "-stderr]: pid file: Permission denied",
                                      "<158>" + name + "]: INFO: our own line\n"}) {
        EXPECT_TRUE(syslog.got(record)) << record << " among " << syslog.all();
    }
    EXPECT_EQ(child.end(), 0);
    EXPECT_EQ(child.stderr_text() + child.stdout_text(), "");
}

TEST(Redirect, RefusesAPriorityThatDoesNotExist) {
    Capture err;
    EXPECT_EQ(redirect_tosyslog(STDERR_FILENO, "local5", 8, "tag"), -22);
    EXPECT_EQ(err.text(), "ERR(redirect_tosyslog):Priority code 8 too large");
}

TEST(Redirect, LeavesBothDescriptorsWhenTheFirstLoggerCannotBeStarted) {
    Child child([] {
        const rlimit none_left{3, 3};
        setrlimit(RLIMIT_NOFILE, &none_left);
        _exit(duskvale_debug_redirect("local5", "bridge") == -EMFILE ? 0 : 1);
    });
    const std::string tag = "bridge[" + std::to_string(child.id()) + "-stdout]";
    EXPECT_EQ(child.end(), 0);
    EXPECT_EQ(child.stderr_text(),
              "ERR(redirect_tosyslog):Failed running 'logger -p 'local5.info' -t '" + tag +
                  "'': Too many open files");
}
