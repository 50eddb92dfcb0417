/*
 * libFuzzer over the texts that the programs read: the first byte of an input says which. Runs in
 * the sandbox only.
 */
#include "require.h"

#include "base/paths.h"
#include "ctl/ask/stored-setting.h"
#include "ctl/commands/commands.h"
#include "ctl/doctor/facts.h"
#include "ctl/history/last-change.h"
#include "ctl/history/sentence.h"
#include "ctl/line/parse.h"
#include "daemon/options.h"
#include "dbus/duskvale-dbus.h"
#include "dbus/settings.h"
#include "devices/duskvale-lumacrates.h"
#include "keeper/config.h"
#include "keeper/edge/disk.h"
#include "keeper/hold.h"
#include "keeper/object.h"
#include "keeper/policy/keeper.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

namespace {

const std::string file = "/etc/duskvale/text";

void write(const std::string &path, const std::string &text) {
    std::ofstream(path) << text;
}

void require_safe(const std::string &said) {
    require(ctl::printable(said) == said);
}

/* The command reads what the daemon reads, the keeper repairs only what the daemon would lose, and
   what the daemon writes it reads again. */
void settings(const std::string &text) {
    write(DUSKVALE_FROZEN_MASTER_FILE, text);
    write(DUSKVALE_PREFERRED_MASTER_FILE, text);
    auto *bus = duskvale_dbus_new(1, nullptr, nullptr);
    const uint32_t number = duskvale_get_frozen_master(bus);
    require(static_cast<uint32_t>(duskvale_get_preferred_master(bus)) == number);
    require(ctl::read_stored(DUSKVALE_FROZEN_MASTER_FILE).value() == number);

    keeper::repair_setting(DUSKVALE_PREFERRED_MASTER_FILE, "1\n");
    const uint32_t repaired = ctl::read_stored(DUSKVALE_PREFERRED_MASTER_FILE).value();
    require(repaired == number || (number == 0 && repaired == 1));

    update_frozen_master(bus);
    auto *next = duskvale_dbus_new(1, nullptr, nullptr);
    require(duskvale_get_frozen_master(next) == number);
    require(number == 0 || g_strcmp0(duskvale_get_frozen_master_reason(next),
                                     duskvale_get_frozen_master_reason(bus)) == 0);
    g_object_unref(bus);
    g_object_unref(next);
}

void device(const std::string &text) {
    const std::string path = "/sys/bus/lumacrates/devices/one/lumacrates:1";
    std::filesystem::create_directories(path);
    write(path + "/location", text);
    write(path + "/hardware_id", text);
    auto *devices = duskvale_lumacrates_new(nullptr, nullptr);
    DuskvaleLumacrateInfo *info = nullptr;
    require(duskvale_lumacrates_inventory(devices, &info) == 1);
    require(text.starts_with(info->location));
    require(std::string(info->location) == info->hardware_id);
    duskvale_lumacrates_inventory_free(devices, info);
    duskvale_lumacrates_destroy(devices);
}

void daemon_line(const std::string &text) {
    g_auto(GStrv) words = g_strsplit(("daemon\n" + text).c_str(), "\n", -1);
    Options options;
    optind = 0; /* getopt(3) begins again */
    opterr = 0;
    const int refused = parse_options(static_cast<int>(g_strv_length(words)), words, &options);
    require(refused != 0 || options.foreground || options.syslog_facility != nullptr);
}

void command_line(const std::string &text) {
    g_auto(GStrv) words = g_strsplit(("duskvalectl\n" + text).c_str(), "\n", -1);
    try {
        const auto parsed =
            ctl::parse_line(ctl::commands(), static_cast<int>(g_strv_length(words)), words);
        if (const auto *options = std::get_if<ctl::Options>(&parsed)) {
            require(options->command->run != nullptr);
            require(g_utf8_validate(options->text.c_str(), -1, nullptr) != FALSE);
            require(options->wait.value_or(1) > 0 && options->timeout.value_or(1) > 0);
            require(options->last.value_or(1) > 0 && options->members.value_or(1) > 0);
        }
    } catch (const ctl::WrongLine &wrong) {
        require(!wrong.fault.empty());
    }
}

/* A line that is not an entry is one of the daemon's log. */
void journal(const std::string &text) {
    using nlohmann::json;
    std::string entries;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        entries += line.starts_with('{')
                       ? line
                       : R"({"__REALTIME_TIMESTAMP":"1700000000000000","_UID":"0","_PID":"12",)"
                         R"("_SYSTEMD_UNIT":"duskvale-corosync-bridge.service","SYSLOG_PID":"12",)"
                         R"("SYSLOG_IDENTIFIER":"duskvale-corosync-bridge","MESSAGE":)" +
                             json(line).dump(-1, ' ', false, json::error_handler_t::replace) + "}";
        entries += '\n';
    }
    write(file, entries);
    try {
        const auto reading = ctl::read_records({file, ""}, 1, [](const auto &) { return true; });
        for (const ctl::Record &record : reading.records) {
            const ctl::Wording words = ctl::wording(record.event, reading.local);
            require_safe(words.text);
            ctl::json_line(words.values);
        }
        const auto change = ctl::find_last_change(reading).value_or(ctl::LastChange());
        for (const ctl::Sentence &sentence : change.sentences) {
            require_safe(sentence.text);
        }
    } catch (const std::runtime_error &) { /* not a journal */
    }
}

void corosync_answers(const std::string &text) {
    ctl::CorosyncFacts facts;
    ctl::read_cmap(text, facts);
    ctl::read_groups(text, facts);
    require(facts.local == 0 || facts.listed.contains(facts.local));
}

void keeper_files(const std::string &text) {
    write(file, text);
    const keeper::Config config = keeper::read_config(file).config;
    require(config.watch_interval.count() >= 100 && config.watch_limit.count() >= 100);
    require(config.step_limit.count() >= 100 && config.watch_failures >= 1);
    keeper::Disk{file, nullptr}.read();
}

/* What texts of others make a keeper do: its node takes over and is preferred, and no more. */
struct Node : keeper::World {
    void send_text(const std::string &text) override {
        require(keeper::decode(text, now).has_value());
    }
    void send_keep_alive() override {}
    void ping_bus() override {}
    void take_over() override {}
    void write_preferred(bool) override {}
    void read_snapshot() override {}
    void read_run_directory() override {}
    void run_watch_programs() override {}
    void kill_daemon() override { require(false); }
    void store(const keeper::Stored &stored) override { require(stored.unfit.empty()); }
    void answer(void *, bool, const std::string &) override { require(false); }
    void log(int, const std::string &text) override { require_safe(text); }

    void hear(const keeper::Input &input) { keeper.handle(input, now); }
    std::string state() const {
        keeper::publish(DUSKVALE_KEEPER(object.get()), keeper.state(), keeper.judgement(),
                        keeper.freeze_changed());
        const client::Variant all(
            g_dbus_interface_skeleton_get_properties(G_DBUS_INTERFACE_SKELETON(object.get())));
        g_autofree char *text = g_variant_print(all.get(), TRUE);
        return text;
    }
    keeper::Time now{100'000};
    client::Object<DuskvaleKeeper> object{duskvale_keeper_skeleton_new()};
    keeper::Keeper keeper{{.boot = "now"}, *this};
};

void keeper_texts(const std::string &text) {
    Node node;
    node.hear(keeper::DiskRead{});
    node.hear(keeper::Corosync{.connected = true,
                               .quorate = true,
                               .ring = {1, 2},
                               .local = 1,
                               .nodes = {{1, ""}, {2, ""}}});
    node.hear(keeper::UnitChanged{.main_pid = 7});
    node.hear(keeper::DaemonAppeared{});
    node.hear(client::Snapshot{.local_node = 1, .master_node = 2, .members = 2});
    node.hear(keeper::RunDirectoryRead{{"/usr/share/duskvale/run.d/10.run"}});
    std::istringstream lines(text.c_str()); /* the bus carries no NUL */
    for (std::string line; std::getline(lines, line); node.now += keeper::Duration(700)) {
        node.hear(keeper::Tick{});
        const std::string before = node.state();
        node.hear(client::Text{line});
        const auto read = keeper::decode(line, node.now);
        require(read || node.state() == before);
        const std::string sent = read ? keeper::encode(*read, node.now) : "";
        require(!read || keeper::encode(keeper::decode(sent, node.now).value(), node.now) == sent);
        node.now = std::max(node.now, node.keeper.next_wake().value_or(node.now));
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char *data, size_t size) {
    static const std::map<char, void (*)(const std::string &)> readers = {
        {'s', settings}, {'d', device},           {'o', daemon_line},  {'l', command_line},
        {'j', journal},  {'c', corosync_answers}, {'f', keeper_files}, {'k', keeper_texts}};
    const auto reader = readers.find(size > 0 ? static_cast<char>(data[0]) : ' ');
    if (reader == readers.end()) {
        return -1; /* not worth keeping */
    }
    reader->second({data + 1, data + size});
    return 0;
}
