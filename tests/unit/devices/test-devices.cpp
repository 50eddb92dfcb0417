/* On a made-up device tree below /sys/bus; runs in the sandbox only. */
#include "devices/duskvale-lumacrates.h"

#include "support/capture.h"
#include "support/script.h"

#include <sys/stat.h>

namespace fs = std::filesystem;

namespace {

const fs::path driver = "/sys/bus/lumacrates";
const fs::path devices = driver / "devices";

int lowest_free_descriptor() {
    const int fd = dup(STDERR_FILENO);
    close(fd);
    return fd;
}

struct Session {
    Session() { fs::create_directories(devices); }
    ~Session() {
        release();
        fs::remove_all(driver);
        EXPECT_EQ(lowest_free_descriptor(), free_before) << "a file was left open";
    }
    std::string outcome() { return log.take() + std::exchange(heard, {}); }

    void create(const DuskvaleLumacratesAgents *table) {
        release();
        inventory = duskvale_lumacrates_new(table, this);
    }
    void release() {
        if (inventory != nullptr) {
            g_object_add_weak_pointer(G_OBJECT(inventory),
                                      reinterpret_cast<gpointer *>(&inventory));
            duskvale_lumacrates_destroy(inventory);
            EXPECT_EQ(inventory, nullptr) << "not released, and the leak checker does not see it";
        }
    }
    void say(const std::string &line) { heard += line + "\n"; }
    void read_all() {
        DuskvaleLumacrateInfo *details = nullptr;
        const gint32 count = duskvale_lumacrates_inventory(inventory, &details);
        for (const DuskvaleLumacrateInfo *info = details; info < details + count; info++) {
            say(std::string(info->location) + "|" + info->hardware_id);
        }
        duskvale_lumacrates_inventory_free(inventory, details);
    }
    static int on_notify(gint32 total, const DuskvaleLumacrateInfo *info, gboolean added,
                         const char *devpath, gpointer session) {
        static_cast<Session *>(session)->say(
            "heard: " + std::to_string(total) + (added != FALSE ? " added " : " removed ") +
            info->location + "|" + info->hardware_id + " " + devpath);
        return 0;
    }
    static int on_count(gint32 count, gpointer session) {
        static_cast<Session *>(session)->say("count " + std::to_string(count));
        return 0;
    }
    static constexpr DuskvaleLumacratesAgents agents = {on_notify, on_count};
    static constexpr DuskvaleLumacratesAgents empty = {};
    const std::map<std::string, const DuskvaleLumacratesAgents *> tables = {
        {"agents", &agents}, {"none", &empty}, {"null", nullptr}};

    DuskvaleLumacrates *inventory = nullptr;
    std::string heard;
    Words w;
    Capture log;
    const int free_before = lowest_free_descriptor();

    /* Files are below the driver's devices. */
    const Commands commands = {
        {"device", [this] { fs::create_directories(devices / w[1]); }},
        {"write", [this] { std::ofstream(devices / w[1]) << rest(w, 2); }},
        {"mkdir", [this] { fs::create_directory(devices / w[1]); }},
        {"fifo", [this] { mkfifo((devices / w[1]).c_str(), 0600); }},
        {"rm", [this] { fs::remove_all(devices / w[1]); }},
        {"driver",
         [this] {
             w[1] == "off" ? fs::rename(driver, "/sys/bus/away")
                           : fs::rename("/sys/bus/away", driver);
         }},
        {"create", [this] { create(tables.at(w[1])); }},
        {"scan",
         [this] { say(std::to_string(duskvale_lumacrates_inventory(inventory, nullptr))); }},
        {"read", [this] { read_all(); }},
        {"count", [this] { say(std::to_string(duskvale_lumacrate_count(inventory))); }},
        {"property",
         [this] {
             gint count = -1;
             g_object_get(inventory, "lumacrate-count", &count, nullptr);
             say("property " + std::to_string(count));
         }},
        {"event",
         [this] {
             duskvale_lumacrate_event(inventory, w[1] == "added", (devices / w[2]).c_str());
         }},
    };
};

TEST(Devices, AreCountedAndReadAsTheyWere) {
    expect_script<Session>("inventory");
}

} // namespace
