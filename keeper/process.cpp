#include "keeper/process.h"

#include "keeper/edge/corosync.h"
#include "keeper/edge/daemon.h"
#include "keeper/edge/disk.h"
#include "keeper/edge/log.h"
#include "keeper/edge/programs.h"
#include "keeper/edge/pulse.h"
#include "keeper/edge/systemd.h"
#include "keeper/object.h"
#include "keeper/paths.h"
#include "keeper/policy/keeper.h"

#include "base/paths.h"
#include "base/utf8.h"

#include <malloc.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

namespace keeper {

namespace {

gboolean on_watchdog(gpointer) noexcept {
    sd_notify(0, "WATCHDOG=1");
    malloc_trim(0); /* what the last change needed the node has back while all is at rest */
    return G_SOURCE_CONTINUE;
}

class Process : public World {
public:
    Process(const Config &config_, GDBusConnection *bus_) : config(config_), bus(bus_) {
        take(disk.read());
        follow_daemon(bus, deliver);
        follow_unit(bus, deliver);
        follow_corosync(deliver);
    }

private:
    void take(const Input &input);
    static gboolean on_alarm(gpointer self) noexcept;

    void send_text(const std::string &text) override {
        call_daemon(bus, client::send_message(text));
    }
    void send_keep_alive() override { keeper::send_keep_alive(keep_alives); }
    void ping_bus() override {
        call(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus",
             {"org.freedesktop.DBus.Peer", "Ping", nullptr},
             [this](const Reply &) { take(BusAnswered{}); });
    }
    void take_over() override { call_daemon(bus, client::take_over()); }
    void write_preferred(bool on) override { call_daemon(bus, client::set_preferred(on)); }
    void read_snapshot() override { read_daemon(bus, deliver); }
    void read_run_directory() override {
        /* As the daemon reads it when a sequence begins, which is now. */
        call_on_main_loop(
            [this, found = paths(DUSKVALE_RUN_DIR "/*.run")] { take(RunDirectoryRead{found}); });
    }
    void run_watch_programs() override {
        run_programs(DUSKVALE_KEEPER_WATCH_DIR, config.watch_limit, deliver);
    }
    void kill_daemon() override { kill_unit(bus); }
    void store(const Stored &stored) override { disk.write(stored); }
    void answer(void *call, bool ok, const std::string &text) override {
        answer_call(call, ok, text);
    }
    void log(int priority, const std::string &text) override {
        log_line(priority, text);
        duskvale_keeper_emit_logged(object, duskvale_utf8(text.c_str()).c_str());
    }

    Config config;
    GDBusConnection *bus;
    Deliver deliver = [this](const Input &input) { take(input); };
    Keeper machine{config, *this};
    Disk disk{DUSKVALE_KEEPER_STATE_FILE, deliver};
    sd_bus *keep_alives = follow_keep_alives(deliver);
    DuskvaleKeeper *object = export_object(bus, deliver);
    client::Source alarm;
    std::string status;
};

void Process::take(const Input &input) {
    machine.handle(input, now());
    const std::vector<std::string> &causes = machine.judgement().causes;
    publish(object, machine.state(), machine.judgement(), machine.freeze_changed());
    const std::string first = causes.empty() ? "" : causes.front();
    if (std::exchange(status, first) != first) {
        sd_notify(0, ("STATUS=" + status).c_str());
    }
    alarm = {};
    if (const auto wake = machine.next_wake()) {
        const auto pause = static_cast<guint>(std::max(*wake - now(), Duration(0)).count());
        alarm =
            client::Source(g_timeout_add_full(G_PRIORITY_DEFAULT, pause, on_alarm, this, nullptr));
    }
}

gboolean Process::on_alarm(gpointer self) noexcept {
    static_cast<Process *>(self)->alarm.release();
    static_cast<Process *>(self)->take(Tick{});
    return G_SOURCE_REMOVE;
}

void on_name_owned(GDBusConnection *, const gchar *, gpointer) noexcept {
    sd_notify(0, "READY=1");
}

void on_name_lost(GDBusConnection *, const gchar *, gpointer) noexcept {
    give_up("the bus is lost, or does not give the name " DUSKVALE_KEEPER_BUS_NAME
            ": another keeper runs, or its bus policy is not installed");
}

} // namespace

void run_process(const Config &config) {
    g_autoptr(GError) error = nullptr;
    GDBusConnection *bus = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
    if (bus == nullptr) {
        give_up(std::string("no connection to the system bus: ") + error->message);
    }
    g_dbus_connection_set_exit_on_close(bus, FALSE);
    const Process process(config, bus);
    /* Last, so that whoever sees the name finds an object that answers. */
    g_bus_own_name_on_connection(bus, DUSKVALE_KEEPER_BUS_NAME, G_BUS_NAME_OWNER_FLAGS_DO_NOT_QUEUE,
                                 on_name_owned, on_name_lost, nullptr, nullptr);
    uint64_t limit_us = 0;
    if (sd_watchdog_enabled(0, &limit_us) > 0) {
        g_timeout_add(static_cast<guint>(limit_us / 3000), on_watchdog, nullptr);
    }
    g_main_loop_run(g_main_loop_new(nullptr, FALSE));
    _exit(EXIT_SUCCESS);
}

} // namespace keeper
