#include "base/log.h"
#include "dbus/notify.h"
#include "dbus/settings-file.h"
#include "support/capture.h"
#include "support/child.h"

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <sys/resource.h>

#include <utility>

namespace {

/* The object as a start of the daemon makes it; needs no bus. */
class SettingsTest : public testing::Test {
protected:
    SettingsTest() {
        clear_settings();
        duskvale_debug_set_categories(1 << static_cast<int>(LogCategory::dbus));
    }
    ~SettingsTest() override {
        clear_settings();
        g_clear_object(&dbus);
    }
    void restart() {
        g_clear_object(&dbus);
        dbus = duskvale_dbus_new(7, nullptr, nullptr);
    }
    DuskvaleDBus *dbus = nullptr;
};

} // namespace

TEST_F(SettingsTest, PreferenceIsWhateverNumberTheFileBeginsWith) {
    const std::pair<std::optional<std::string>, bool> files[] = {
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
    const std::pair<std::optional<std::string>, const char *> files[] = {
        {{}, "node 0 -- reason = (0) ''"},
        {"", "node 0 -- reason = (-1) ''"},
        {"3\ndisk replacement\n", "node 3 -- reason = (16) 'disk replacement'"},
        {"3\ndisk replacement", "node 3 -- reason = (16) 'disk replacement'"},
        {"3\nfirst\nsecond\n", "node 3 -- reason = (5) 'first'"},
        {"3", "node 3 -- reason = (-1) ''"},
        {"3\n\n", "node 3 -- reason = (-1) ''"},
        {"3 disk\n", "node 3 -- reason = (4) 'disk'"},
        {"3\n\n \t disk \n", "node 3 -- reason = (5) 'disk '"},
        {"maintenance\n3\n", "node 0 -- reason = (11) 'maintenance'"},
        {"-1062731519\nx\n", "node 3232235777 -- reason = (1) 'x'"},
        {"3232235777\nx\n", "node 3232235777 -- reason = (1) 'x'"},
        {"3\ncaf\xe9\n", "node 3 -- reason = (4) 'caf\xe9'"},
    };
    for (const auto &[content, held] : files) {
        write_file(DUSKVALE_FROZEN_MASTER_FILE, content);
        Capture err;
        duskvale_debug_set_level(LOG_DEBUG);
        restart();
        duskvale_debug_set_level(LOG_INFO);
        const std::string logged = err.text();
        EXPECT_THAT(logged, testing::EndsWith(
                                "DBG(DBUS): read_frozen_master: " + std::string(held) + "\n"));
        EXPECT_EQ(logged.find("failed reading"), std::string::npos);
    }
}

TEST_F(SettingsTest, UnusableFilesAreLoggedAndTheFreezeHoldsInMemory) {
    std::filesystem::create_directory(DUSKVALE_FROZEN_MASTER_FILE);
    Capture err;
    restart();
    EXPECT_STREQ(duskvale_get_frozen_master_reason(dbus), "");

    duskvale_notify_frozen_master(dbus, 3, "disk");
    EXPECT_EQ(err.take(),
              "ERR(update_frozen_master):Failed opening /etc/duskvale/frozen_master for "
              "writing: Is a directory\n");
    EXPECT_STREQ(duskvale_get_frozen_master_reason(dbus), "disk");

    duskvale_notify_frozen_master(dbus, 0, nullptr);
    EXPECT_EQ(err.take(), "ERR(update_frozen_master):Failed removing /etc/duskvale/frozen_master: "
                          "Is a directory\n");
    EXPECT_EQ(duskvale_get_frozen_master(dbus), 0U);
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
        _exit(*duskvale_get_frozen_master_reason(dbus) == '\0' ? 0 : 1);
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
