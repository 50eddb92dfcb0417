/* The udev rule, read by udev itself, and what it runs. */
#include "ctl/cluster.h"

#include <sys/mount.h>

class UdevRule : public ClusterTest {
protected:
    static constexpr const char *installed = "/etc/udev/rules.d/90-duskvale-lumacrates.rules";

    UdevRule() {
        /* udevadm writes below /run, which is the machine's. */
        static const int mounted = mount("sandbox", "/run", "tmpfs", 0, nullptr);
        EXPECT_EQ(mounted, 0);
        std::filesystem::create_directories("/etc/udev/rules.d");
        rule = file_text(std::getenv("UDEV_RULE"));
    }

    /* What udev makes of `text` as the rule, for an event of the loopback interface. */
    static std::string udevadm(const std::string &text, const std::string &action) {
        std::ofstream(installed) << text;
        Child child([&] {
            dup2(STDOUT_FILENO, STDERR_FILENO);
            execlp("udevadm", "udevadm", "test", ("--action=" + action).c_str(),
                   "/sys/class/net/lo", nullptr);
            _exit(127);
        });
        EXPECT_EQ(child.end(), 0);
        return child.stdout_text();
    }

    std::string rule;
};

TEST_F(UdevRule, isReadWithoutAFaultAndLeavesOtherDevicesAlone) {
    const std::string told = udevadm(rule, "add");
    EXPECT_NE(told.find(std::string("Reading rules file: ") + installed), std::string::npos);
    EXPECT_EQ(told.find(std::string(installed) + ":"), std::string::npos) << told;
    EXPECT_EQ(told.find("duskvalectl"), std::string::npos) << told;
    const std::string broken = std::regex_replace(rule, std::regex("ACTION"), "ACTOIN");
    EXPECT_NE(udevadm(broken, "add").find(std::string(installed) + ":"), std::string::npos);
}

TEST_F(UdevRule, runsTheCommandThatReportsTheDevice) {
    up(other);
    const std::string here = std::regex_replace(rule, std::regex("==\"lumacrates\""), "==\"net\"");
    for (const std::string action : {"add", "remove"}) {
        const std::string told = udevadm(here, action);
        std::smatch run;
        ASSERT_TRUE(std::regex_search(told, run, std::regex("run: '(/\\S*)/duskvalectl (.*)'")))
            << told;
        EXPECT_EQ(run[1], INSTALLED_BINDIR);
        Child child([&] {
            execl("/bin/sh", "sh", "-c", ("\"$DUSKVALECTL\" " + run[2].str()).c_str(), nullptr);
        });
        EXPECT_EQ(child.end(), 0) << child.stderr_text();
        EXPECT_EQ(asked(), "hotplug " + std::string(action == "add" ? "1" : "0") +
                               " /sys/devices/virtual/net/lo  ;");
    }
}
