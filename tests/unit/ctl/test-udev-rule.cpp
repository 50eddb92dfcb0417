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
        const Outcome answer = shell("udevadm test --action=" + action + " /sys/class/net/lo 2>&1");
        EXPECT_EQ(answer.status, 0);
        return answer.out;
    }

    std::string rule;
};

TEST_F(UdevRule, isReadWithoutAFaultAndLeavesOtherDevicesAlone) {
    const std::string answer = udevadm(rule, "add");
    EXPECT_THAT(answer, HasSubstr(std::string("Reading rules file: ") + installed));
    EXPECT_THAT(answer, Not(HasSubstr(std::string(installed) + ":")));
    EXPECT_THAT(answer, Not(HasSubstr("duskvalectl")));
}

TEST_F(UdevRule, runsTheCommandThatReportsTheDevice) {
    up(other);
    const std::string here = std::regex_replace(rule, std::regex("==\"lumacrates\""), "==\"net\"");
    for (const std::string action : {"add", "remove"}) {
        const std::string answer = udevadm(here, action);
        std::smatch run;
        ASSERT_TRUE(std::regex_search(answer, run, std::regex("run: '(/\\S*)/duskvalectl (.*)'")))
            << answer;
        EXPECT_EQ(run[1], INSTALLED_BINDIR);
        const Outcome reported = shell("duskvalectl " + run[2].str());
        EXPECT_EQ(reported.status, 0) << reported.err;
        EXPECT_EQ(asked(), "hotplug " + std::string(action == "add" ? "1" : "0") +
                               " /sys/devices/virtual/net/lo  ;");
    }
}
