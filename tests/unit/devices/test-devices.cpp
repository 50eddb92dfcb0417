/* On a made-up device tree below /sys/bus; runs in the sandbox only. */
#include "devices/duskvale-lumacrates.h"

#include "support/capture.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace fs = std::filesystem;

namespace {

const fs::path driver = "/sys/bus/lumacrates";
const fs::path devices = driver / "devices";

std::string add(const std::string &name, const std::string &location = "",
                const std::string &hardware_id = "") {
    const fs::path device = devices / name;
    fs::create_directories(device);
    std::ofstream(device / "location") << location;
    std::ofstream(device / "hardware_id") << hardware_id;
    return device;
}

int lowest_free_descriptor() {
    const int fd = dup(STDERR_FILENO);
    close(fd);
    return fd;
}

const std::string scan_failed = "ERR(duskvale_lumacrates_inventory):Failed "
                                "glob(/sys/bus/lumacrates/devices/*/lumacrates:*): 2\n";

class Devices : public testing::Test {
protected:
    Devices() { fs::create_directories(devices); }
    ~Devices() override {
        g_object_add_weak_pointer(G_OBJECT(inventory), reinterpret_cast<gpointer *>(&inventory));
        duskvale_lumacrates_destroy(inventory);
        EXPECT_EQ(inventory, nullptr) << "not released, and the leak checker does not see it";
        fs::remove_all(driver);
    }

    void create(const DuskvaleLumacratesAgents *table = &agents) {
        inventory = duskvale_lumacrates_new(table, this);
    }
    gint32 scan() { return duskvale_lumacrates_inventory(inventory, nullptr); }
    /* What a scan reads of each device. */
    std::vector<std::string> read_all() {
        DuskvaleLumacrateInfo *details = nullptr;
        const gint32 count = duskvale_lumacrates_inventory(inventory, &details);
        std::vector<std::string> texts;
        for (const DuskvaleLumacrateInfo *info = details; info < details + count; info++) {
            texts.push_back(std::string(info->location) + "|" + info->hardware_id);
        }
        duskvale_lumacrates_inventory_free(inventory, details);
        return texts;
    }
    /* The calls of the agents since the last time. */
    std::string told() { return std::exchange(calls, {}).str(); }

    static int on_notify(gint32 total, const DuskvaleLumacrateInfo *info, gboolean added,
                         const char *devpath, gpointer test) {
        static_cast<Devices *>(test)->calls << total << (added ? " added " : " removed ")
                                            << info->location << "|" << info->hardware_id << " "
                                            << devpath << "; ";
        return 0;
    }
    static int on_count(gint32 count, gpointer test) {
        static_cast<Devices *>(test)->calls << "count " << count << "; ";
        return 0;
    }
    static constexpr DuskvaleLumacratesAgents agents = {on_notify, on_count};

    DuskvaleLumacrates *inventory = nullptr;
    std::ostringstream calls;
};

TEST_F(Devices, CountsEntriesOfTheDriverAtEachScan) {
    for (const char *name :
         {"card0/lumacrates:1", "card0/lumacrates:2", "card1/lumacrates:", "card1/lumacrates",
          "card1/other:1", "card1/deeper/lumacrates:1", ".hidden/lumacrates:1"}) {
        add(name);
    }
    fs::create_symlink("nowhere", devices / "gone");
    std::ofstream(devices / "plain-file") << "not a device\n";
    create();
    EXPECT_EQ(told(), "count 3; ") << "during the construction";
    fs::remove_all(devices / "card1");
    gint property = -1;
    g_object_get(inventory, "lumacrate-count", &property, nullptr);
    EXPECT_EQ(property, 3) << "only a scan changes it";
    EXPECT_EQ(scan(), 2);
    EXPECT_EQ(scan(), 2);
    EXPECT_EQ(told(), "count 2; count 2; ") << "told also when nothing changed";
    fs::remove_all(devices / "card0");
    Capture log;
    EXPECT_TRUE(read_all().empty());
    EXPECT_EQ(told() + log.text(), "count 0; ");
}

TEST_F(Devices, MissingDriverIsAFailedScanThatChangesNothing) {
    add("card0/lumacrates:1");
    fs::rename(driver, "/sys/bus/away");
    Capture log;
    create();
    EXPECT_EQ(duskvale_lumacrate_count(inventory), 0);
    fs::rename("/sys/bus/away", driver);
    EXPECT_EQ(scan(), 1);
    fs::remove_all(driver);
    EXPECT_EQ(scan(), -1);
    EXPECT_EQ(duskvale_lumacrate_count(inventory), 1);
    EXPECT_EQ(told(), "count 1; ");
    EXPECT_EQ(log.text(), scan_failed + scan_failed);
}

TEST_F(Devices, AttributesAreReadIntoTheirFields) {
    const std::string a38(38, 'a');
    const std::pair<std::string, std::string> cases[] = {
        {" \n\t ", ""}, /* first, since the sanitizer watches what is before it */
        {"LC-7\n", "LC-7"},
        {"no newline", "no newline"},
        {"  inner\n \tstays \t\n\v\f\r\n", "  inner\n \tstays"},
        {"", ""},
        {a38 + "bc", a38 + "b"},
        {a38 + " beyond", a38},
        {a38 + "\u00e9\n", a38 + "\xc3"},
    };
    std::vector<std::string> fields;
    for (const auto &[attribute, field] : cases) {
        add("card0/lumacrates:" + std::to_string(fields.size()), attribute, "LC-8");
        fields.push_back(field + "|LC-8");
    }
    create();
    EXPECT_EQ(read_all(), fields);
}

TEST_F(Devices, UnreadableAttributeIsEmptyAndLogged) {
    const std::string no_id = add("card0/lumacrates:1", "slot 1\n");
    fs::remove(no_id + "/hardware_id");
    const std::string odd = add("card0/lumacrates:2", "", "LC-2\n");
    fs::remove(odd + "/location");
    fs::create_directory(odd + "/location");
    const std::string pipe = add("card0/lumacrates:3", "slot 3\n");
    fs::remove(pipe + "/hardware_id");
    ASSERT_EQ(mkfifo((pipe + "/hardware_id").c_str(), 0600), 0) << "that nobody writes to";
    create();
    Capture log;
    const int free_before = lowest_free_descriptor();
    EXPECT_EQ(read_all(), (std::vector<std::string>{"slot 1|", "|LC-2", "slot 3|"}));
    EXPECT_EQ(lowest_free_descriptor(), free_before) << "a file was left open";
    const std::string failed = "ERR(read_sysfs_attr):Failed ";
    EXPECT_EQ(log.text(), failed + "opening '" + no_id +
                              "/hardware_id': No such file or directory\n" + failed +
                              "reading from '" + odd + "/location': Is a directory\n");
}

TEST_F(Devices, HotplugIsToldBetweenTwoCountsOfWhatSysfsHolds) {
    add("card0/lumacrates:1");
    create();
    told();
    const std::string second = add("card0/lumacrates:2", "slot 2\n", "LC-2\n");
    Capture log;
    duskvale_lumacrate_event(inventory, TRUE, second.c_str());
    EXPECT_EQ(told(), "count 2; 2 added slot 2|LC-2 " + second + "; count 2; ");
    duskvale_lumacrate_event(inventory, FALSE, second.c_str());
    EXPECT_EQ(told(), "count 2; 2 removed | " + second + "; count 2; ") << "untrue";
    EXPECT_EQ(log.text(), "");

    fs::remove_all(driver);
    duskvale_lumacrate_event(inventory, FALSE, second.c_str());
    EXPECT_EQ(told(), "2 removed | " + second + "; count 2; ") << "the last good count";
    EXPECT_EQ(log.text(), scan_failed);
}

TEST_F(Devices, AgentsMayBeMissing) {
    const DuskvaleLumacratesAgents empty = {};
    for (const auto *table : {&empty, static_cast<const DuskvaleLumacratesAgents *>(nullptr)}) {
        g_clear_pointer(&inventory, duskvale_lumacrates_destroy);
        create(table);
        Capture log;
        duskvale_lumacrate_event(inventory, TRUE, "/nonexistent");
        EXPECT_EQ(log.text(), "") << "the device is not read for nobody";
    }
}

} // namespace
