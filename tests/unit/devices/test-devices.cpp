/* On a made-up device tree below /sys/bus; runs in the sandbox only. */
#include "devices/duskvale-lumacrates.h"

#include "base/log.h"
#include "support/capture.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

namespace {

const fs::path devices = "/sys/bus/lumacrates/devices";

/* What the owner of an inventory is told, one line a call. */
struct Owner {
    Lines calls;

    static int notify(gint32 total, const DuskvaleLumacrateInfo *info, gboolean added,
                      const char *devpath, gpointer data) {
        static_cast<Owner *>(data)->calls.push_back(
            std::to_string(total) + (added ? " added [" : " removed [") + info->hardware_id +
            "] [" + info->location + "] " + devpath);
        return 0;
    }
    static int count(gint32 count, gpointer data) {
        static_cast<Owner *>(data)->calls.push_back("count " + std::to_string(count));
        return 0;
    }
};
const DuskvaleLumacratesAgents agents = {Owner::notify, Owner::count};

std::string add(std::string_view name, std::string_view location, std::string_view hardware_id) {
    const fs::path device = devices / name;
    fs::create_directories(device);
    std::ofstream(device / "location") << location;
    std::ofstream(device / "hardware_id") << hardware_id;
    return device;
}

std::string failed(const char *what, const std::string &path, const char *why) {
    return std::string("ERR(read_sysfs_attr):Failed ") + what + " '" + path + "': " + why + "\n";
}

const std::string scan_failed = "ERR(duskvale_lumacrates_inventory):Failed "
                                "glob(/sys/bus/lumacrates/devices/*/lumacrates:*): 2\n";

class Devices : public testing::Test {
protected:
    void SetUp() override { fs::create_directories(devices); }
    void TearDown() override {
        if (inventory != nullptr) {
            duskvale_lumacrates_destroy(inventory);
        }
        fs::remove_all(devices.parent_path());
    }

    void create(const DuskvaleLumacratesAgents *table = &agents) {
        inventory = duskvale_lumacrates_new(table, &owner);
    }
    Lines take_calls() { return std::exchange(owner.calls, {}); }
    int property() const {
        int value = -1;
        g_object_get(inventory, "lumacrate-count", &value, nullptr);
        return value;
    }

    Owner owner;
    DuskvaleLumacrates *inventory = nullptr;
};

TEST_F(Devices, CountsEntriesOfTheDriver) {
    add("card0/lumacrates:1", "", "");
    add("card0/lumacrates:2", "", "");
    add("card1/lumacrates:", "", "");
    add("card1/lumacrates", "", "");
    add("card1/other:1", "", "");
    add("card1/deeper/lumacrates:1", "", "");
    add(".hidden/lumacrates:1", "", "");
    fs::create_symlink("nowhere", devices / "gone");
    std::ofstream(devices / "plain-file") << "not a device\n";
    create();
    EXPECT_EQ(take_calls(), Lines{"count 3"}) << "during the construction";
    EXPECT_EQ(duskvale_lumacrate_count(inventory), 3);
    EXPECT_EQ(property(), 3);

    fs::remove_all(devices / "card1/lumacrates:");
    EXPECT_EQ(duskvale_lumacrate_count(inventory), 3) << "only a scan changes it";
    EXPECT_EQ(take_calls(), Lines{});
    EXPECT_EQ(duskvale_lumacrates_inventory(inventory, nullptr), 2);
    EXPECT_EQ(duskvale_lumacrates_inventory(inventory, nullptr), 2);
    EXPECT_EQ(take_calls(), (Lines{"count 2", "count 2"})) << "told also when nothing changed";
}

TEST_F(Devices, NoDeviceIsACountOfNone) {
    create();
    DuskvaleLumacrateInfo *details = nullptr;
    Capture log;
    EXPECT_EQ(duskvale_lumacrates_inventory(inventory, &details), 0);
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(take_calls(), (Lines{"count 0", "count 0"}));
    duskvale_lumacrates_inventory_free(inventory, details);
    duskvale_lumacrates_inventory_free(inventory, nullptr);
}

TEST_F(Devices, MissingDriverIsAFailedScan) {
    add("card0/lumacrates:1", "", "");
    fs::rename(devices.parent_path(), "/sys/bus/away");
    Capture log;
    create();
    EXPECT_EQ(log.take(), scan_failed);
    EXPECT_EQ(duskvale_lumacrate_count(inventory), 0);
    EXPECT_EQ(take_calls(), Lines{});

    fs::rename("/sys/bus/away", devices.parent_path());
    EXPECT_EQ(duskvale_lumacrates_inventory(inventory, nullptr), 1);
    EXPECT_EQ(log.take(), "");
    fs::remove_all(devices.parent_path());
    take_calls();
    EXPECT_EQ(duskvale_lumacrates_inventory(inventory, nullptr), -1);
    EXPECT_EQ(log.take(), scan_failed);
    EXPECT_EQ(duskvale_lumacrate_count(inventory), 1) << "kept";
    EXPECT_EQ(take_calls(), Lines{});
}

TEST_F(Devices, AttributesAreReadIntoTheirFields) {
    const std::string a38(38, 'a');
    struct {
        std::string attribute, field;
    } const cases[] = {
        {"LC-7\n", "LC-7"},
        {"no newline", "no newline"},
        {"  leading stays\n", "  leading stays"},
        {"inner\n \tstays \t\n\v\f\r\n", "inner\n \tstays"},
        {" \n\t ", ""},
        {"", ""},
        {a38 + "bc", a38 + "b"},
        {std::string(60, 'x') + "\n", std::string(39, 'x')},
        {a38 + " beyond", a38},
        {a38 + "\u00e9\n", a38 + "\xc3"},
    };
    for (size_t i = std::size(cases); i-- > 0;) { /* made in another order than scanned */
        add("card0/lumacrates:" + std::to_string(i), cases[i].attribute,
            cases[std::size(cases) - 1 - i].attribute);
    }
    create();
    DuskvaleLumacrateInfo *details = nullptr;
    ASSERT_EQ(duskvale_lumacrates_inventory(inventory, &details), std::ssize(cases));
    ASSERT_NE(details, nullptr);
    for (size_t i = 0; i < std::size(cases); i++) {
        EXPECT_EQ(details[i].location, cases[i].field) << i;
        EXPECT_EQ(details[i].hardware_id, cases[std::size(cases) - 1 - i].field) << i;
    }
    duskvale_lumacrates_inventory_free(inventory, details);
}

TEST_F(Devices, UnreadableAttributeIsEmptyAndLogged) {
    const std::string no_id = add("card0/lumacrates:1", "slot 1\n", "");
    fs::remove(no_id + "/hardware_id");
    const std::string odd = add("card0/lumacrates:2", "", "LC-2\n");
    fs::remove(odd + "/location");
    fs::create_directory(odd + "/location");
    const std::string pipe = add("card0/lumacrates:3", "slot 3\n", "");
    fs::remove(pipe + "/hardware_id");
    ASSERT_EQ(mkfifo((pipe + "/hardware_id").c_str(), 0600), 0);
    create();
    Capture log;
    DuskvaleLumacrateInfo *details = nullptr;
    ASSERT_EQ(duskvale_lumacrates_inventory(inventory, &details), 3);
    EXPECT_EQ(log.text(), failed("opening", no_id + "/hardware_id", "No such file or directory") +
                              failed("reading from", odd + "/location", "Is a directory"));
    EXPECT_STREQ(details[0].location, "slot 1");
    EXPECT_STREQ(details[0].hardware_id, "");
    EXPECT_STREQ(details[1].location, "");
    EXPECT_STREQ(details[1].hardware_id, "LC-2");
    EXPECT_STREQ(details[2].location, "slot 3");
    EXPECT_STREQ(details[2].hardware_id, "") << "a pipe that nobody writes to";
    duskvale_lumacrates_inventory_free(inventory, details);
}

TEST_F(Devices, HotplugIsToldBetweenTwoCounts) {
    add("card0/lumacrates:1", "slot 1\n", "LC-1\n");
    create();
    take_calls();
    const std::string second = add("card0/lumacrates:2", "slot 2\n", "LC-2\n");
    Capture log;
    duskvale_lumacrate_event(inventory, TRUE, second.c_str());
    EXPECT_EQ(take_calls(), (Lines{"count 2", "2 added [LC-2] [slot 2] " + second, "count 2"}));

    fs::remove_all(second);
    duskvale_lumacrate_event(inventory, FALSE, second.c_str());
    EXPECT_EQ(take_calls(), (Lines{"count 1", "1 removed [] [] " + second, "count 1"}));
    EXPECT_EQ(log.take(), "");

    /* The report is not counted, sysfs is; and it need not be true. */
    duskvale_lumacrate_event(inventory, TRUE, second.c_str());
    EXPECT_EQ(take_calls(), (Lines{"count 1", "1 added [] [] " + second, "count 1"}));
    EXPECT_EQ(log.text(),
              failed("opening", second + "/location", "No such file or directory") +
                  failed("opening", second + "/hardware_id", "No such file or directory"));
}

TEST_F(Devices, HotplugAfterAFailedScanTellsTheLastGoodCount) {
    const std::string device = add("card0/lumacrates:1", "", "");
    create();
    take_calls();
    fs::remove_all(devices.parent_path());
    Capture log;
    duskvale_lumacrate_event(inventory, FALSE, device.c_str());
    EXPECT_EQ(log.text(), scan_failed) << "and no complaint about a count of -1";
    EXPECT_EQ(take_calls(), (Lines{"1 removed [] [] " + device, "count 1"}));
    EXPECT_EQ(property(), 1);
}

TEST_F(Devices, AgentsMayBeMissing) {
    const DuskvaleLumacratesAgents empty = {};
    const std::string device = add("card0/lumacrates:1", "", "");
    for (const DuskvaleLumacratesAgents *table :
         {&empty, static_cast<const DuskvaleLumacratesAgents *>(nullptr)}) {
        create(table);
        fs::create_directory(devices / "card0/lumacrates:2");
        Capture log;
        duskvale_lumacrate_event(inventory, TRUE, (device + "x").c_str());
        EXPECT_EQ(log.text(), "") << "the device is not read for nobody";
        EXPECT_EQ(duskvale_lumacrate_count(inventory), 2);
        fs::remove(devices / "card0/lumacrates:2");
        duskvale_lumacrates_destroy(std::exchange(inventory, nullptr));
    }
}

TEST_F(Devices, DebugLinesFollowAScanAndAnEvent) {
    const std::string device = add("card0/lumacrates:1", "slot 1", "LC-1");
    create();
    duskvale_debug_set_level(LOG_DEBUG);
    duskvale_debug_set_categories(1 << static_cast<int>(LogCategory::lumacrates));
    Capture log;
    DuskvaleLumacrateInfo *details = nullptr;
    duskvale_lumacrates_inventory(inventory, &details);
    duskvale_lumacrates_inventory_free(inventory, details);
    EXPECT_EQ(log.take(), "DBG(LUMACRATES): duskvale_lumacrates_inventory: (read-details)\n"
                          "DBG(LUMACRATES): duskvale_lumacrates_set_property: lumacrate-count = 1\n"
                          "DBG(LUMACRATES): lumacrate_count_hook: 1\n"
                          "DBG(LUMACRATES): read_inventory: \n"
                          "DBG(LUMACRATES): read_lumacrate_info: " +
                              device +
                              "\n"
                              "DBG(LUMACRATES): duskvale_lumacrates_inventory_free: \n");
    fs::remove_all(devices / "card0");
    duskvale_lumacrate_event(inventory, FALSE, device.c_str());
    EXPECT_EQ(log.take(), "DBG(LUMACRATES): duskvale_lumacrate_event: \n"
                          "DBG(LUMACRATES): duskvale_lumacrates_inventory: (count-only)\n"
                          "DBG(LUMACRATES): duskvale_lumacrates_inventory: No match "
                          "(/sys/bus/lumacrates/devices/*/lumacrates:*)\n"
                          "DBG(LUMACRATES): duskvale_lumacrates_set_property: lumacrate-count = 0\n"
                          "DBG(LUMACRATES): lumacrate_count_hook: 0\n"
                          "DBG(LUMACRATES): duskvale_lumacrate_event: REMOVED []\n"
                          "DBG(LUMACRATES): duskvale_lumacrates_set_property: lumacrate-count = 0\n"
                          "DBG(LUMACRATES): lumacrate_count_hook: 0\n");
    duskvale_lumacrates_destroy(std::exchange(inventory, nullptr));
    EXPECT_EQ(log.text(), "DBG(LUMACRATES): duskvale_lumacrates_destroy: \n"
                          "DBG(LUMACRATES): duskvale_lumacrates_finalize: \n");
    duskvale_debug_set_level(0);
}

} // namespace
