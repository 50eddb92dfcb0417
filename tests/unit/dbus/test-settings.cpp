#include "base/log.h"
#include "dbus/notify.h"
#include "dbus/settings-file.h"
#include "support/capture.h"
#include "support/child.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <vector>

namespace {

constexpr uint32_t big_id = 3232235777U;

/* The object as a start of the daemon makes it; needs no bus. */
class SettingsTest : public testing::Test {
protected:
    SettingsTest() {
        clear_settings();
        duskvale_debug_set_categories(1 << static_cast<int>(LogCategory::dbus));
        duskvale_debug_set_level(LOG_INFO);
    }
    ~SettingsTest() override {
        clear_settings();
        duskvale_debug_set_level(LOG_INFO);
        g_clear_object(&dbus);
    }
    void restart() {
        g_clear_object(&dbus);
        dbus = duskvale_dbus_new(7, nullptr, nullptr);
    }
    std::string reason() const {
        const char *text = duskvale_get_frozen_master_reason(dbus);
        return text != nullptr ? text : "null";
    }
    DuskvaleDBus *dbus = nullptr;
};

} // namespace

TEST_F(SettingsTest, PreferenceIsWhateverNumberTheFileBeginsWith) {
    const std::vector<std::pair<std::optional<std::string>, bool>> files = {
        {{}, false},     {"", false},   {"0\n", false}, {"yes\n", false}, {"1\n", true},
        {" \n 1", true}, {"2\n", true}, {"-1\n", true}, {"1 0\n", true},
    };
    for (const auto &[content, preferred] : files) {
        write_file(DUSKVALE_PREFERRED_MASTER_FILE, content);
        Capture err;
        restart();
        EXPECT_EQ(duskvale_get_preferred_master(dbus) != 0, preferred) << content.value_or("none");
        EXPECT_EQ(err.text(), "");
    }
}

TEST_F(SettingsTest, FreezeIsReadAsAnOperatorMayHaveWrittenIt) {
    struct {
        std::optional<std::string> content;
        uint32_t nodeid;
        std::string reason;
        std::string logged;
    } const files[] = {
        {{}, 0, "null", "node 0 -- reason = (0) ''"},
        {"", 0, "", "node 0 -- reason = (-1) ''"},
        {"3\ndisk replacement\n", 3, "disk replacement",
         "node 3 -- reason = (16) 'disk replacement'"},
        {"3\ndisk replacement", 3, "disk replacement",
         "node 3 -- reason = (16) 'disk replacement'"},
        {"3\nfirst\nsecond\n", 3, "first", "node 3 -- reason = (5) 'first'"},
        {"3", 3, "", "node 3 -- reason = (-1) ''"},
        {"3\n\n", 3, "", "node 3 -- reason = (-1) ''"},
        {"3 disk\n", 3, "disk", "node 3 -- reason = (4) 'disk'"},
        {"3\n\n \t disk \n", 3, "disk ", "node 3 -- reason = (5) 'disk '"},
        {"maintenance\n3\n", 0, "maintenance", "node 0 -- reason = (11) 'maintenance'"},
        {"-1062731519\nx\n", big_id, "x", "node 3232235777 -- reason = (1) 'x'"},
        {"3232235777\nx\n", big_id, "x", "node 3232235777 -- reason = (1) 'x'"},
        {"3\ncaf\xe9\n", 3, "caf\xe9", "node 3 -- reason = (4) 'caf\xe9'"},
    };
    duskvale_debug_set_level(LOG_DEBUG);
    for (const auto &file : files) {
        write_file(DUSKVALE_FROZEN_MASTER_FILE, file.content);
        Capture err;
        restart();
        EXPECT_EQ(duskvale_get_frozen_master(dbus), file.nodeid) << file.logged;
        EXPECT_EQ(reason(), file.reason) << file.logged;
        EXPECT_NE(err.text().find("DBG(DBUS): read_frozen_master: " + file.logged + "\n"),
                  std::string::npos)
            << err.text();
        EXPECT_EQ(err.text().find("failed reading"), std::string::npos);
    }
}

TEST_F(SettingsTest, FreezeOutlivesARestart) {
    struct {
        uint32_t nodeid;
        const char *reason;
        std::string content;
        std::string reason_after_restart;
        std::string logged;
    } const freezes[] = {
        {3, "disk", "3\ndisk\n", "disk", "written node 3 -- reason = (4) 'disk'"},
        {3, "", "3\n\n", "", "written node 3 -- reason = (0) ''"},
        {3, nullptr, "3\n\n", "", "written node 3 -- reason = (0) ''"},
        {big_id, "a\nb", "-1062731519\na\nb\n", "a",
         "written node 3232235777 -- reason = (3) 'a\nb'"},
        {3, "caf\xe9", "3\ncaf\xe9\n", "caf\xe9", "written node 3 -- reason = (4) 'caf\xe9'"},
        {0, "over", "absent", "null", "removed frozen_master"},
        {0, nullptr, "absent", "null", "removed frozen_master"},
    };
    for (const auto &freeze : freezes) {
        restart();
        duskvale_debug_set_level(LOG_DEBUG);
        Capture err;
        duskvale_notify_frozen_master(dbus, freeze.nodeid, freeze.reason);
        const std::string given = freeze.reason != nullptr ? freeze.reason : "";
        EXPECT_EQ(err.text(), "DBG(DBUS): duskvale_notify_frozen_master: frozen_master=" +
                                  std::to_string(static_cast<gint32>(freeze.nodeid)) + " (" +
                                  given + ")\nDBG(DBUS): update_frozen_master: " + freeze.logged +
                                  "\n");
        duskvale_debug_set_level(LOG_INFO);
        EXPECT_EQ(reason(), freeze.nodeid != 0 ? given : "null");
        EXPECT_EQ(read_file(DUSKVALE_FROZEN_MASTER_FILE), freeze.content);
        restart();
        EXPECT_EQ(duskvale_get_frozen_master(dbus), freeze.nodeid);
        EXPECT_EQ(reason(), freeze.reason_after_restart);
    }
}

TEST_F(SettingsTest, TheHeldReasonMayBeAnnouncedAgain) {
    restart();
    duskvale_notify_frozen_master(dbus, 3, "disk");
    duskvale_notify_frozen_master(dbus, 4, duskvale_get_frozen_master_reason(dbus));
    EXPECT_EQ(reason(), "disk");
}

TEST_F(SettingsTest, UnusableFilesAreLoggedAndTheValuesHoldInMemory) {
    std::filesystem::create_directory(DUSKVALE_PREFERRED_MASTER_FILE);
    std::filesystem::create_directory(DUSKVALE_FROZEN_MASTER_FILE);
    Capture err;
    restart();
    EXPECT_EQ(reason(), "");

    duskvale_notify_frozen_master(dbus, 3, "disk");
    EXPECT_EQ(err.take(),
              "ERR(update_frozen_master):Failed opening /etc/duskvale/frozen_master for "
              "writing: Is a directory\n");
    EXPECT_EQ(reason(), "disk");

    duskvale_notify_frozen_master(dbus, 0, nullptr);
    EXPECT_EQ(err.take(),
              "ERR(update_frozen_master):Failed removing /etc/duskvale/frozen_master: Is "
              "a directory\n");
    EXPECT_EQ(duskvale_get_frozen_master(dbus), 0U);

    g_object_set(dbus, "preferred_master", TRUE, nullptr);
    EXPECT_EQ(err.take(), "ERR(duskvale_set_preferred_master):Failed opening "
                          "/etc/duskvale/preferred_master for writing: Is a directory\n");
    EXPECT_NE(duskvale_get_preferred_master(dbus), 0);
}

TEST_F(SettingsTest, AReasonThatCannotBeReadIsReportedAndEmpty) {
    if (dlsym(RTLD_DEFAULT, "__asan_init") != nullptr) {
        GTEST_SKIP() << "the sanitizer ends a process that runs out of memory";
    }
    write_file(DUSKVALE_FROZEN_MASTER_FILE, "3\nx");
    std::filesystem::resize_file(DUSKVALE_FROZEN_MASTER_FILE, 1U << 30U);
    Child child([this] {
        const rlimit no_more{1, 1};
        setrlimit(RLIMIT_AS, &no_more);
        restart();
        _exit(duskvale_get_frozen_master(dbus) == 3 && reason().empty() ? 0 : 1);
    });
    EXPECT_EQ(child.end(), 0);
    EXPECT_EQ(child.stderr_text(),
              "failed reading failure-reason (using empty): Cannot allocate memory\n");
}

TEST(DuskvaleDBusNew, RefusesNodeZero) {
    Capture err;
    EXPECT_EQ(duskvale_dbus_new(0, nullptr, nullptr), nullptr);
    EXPECT_EQ(err.text(), "ERR(duskvale_dbus_new):Illegal local_nodeid=0\n");
}
