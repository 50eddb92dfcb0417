#include "keeper/process.h"

#include "keeper/edge/corosync.h"
#include "keeper/edge/daemon.h"
#include "keeper/edge/disk.h"
#include "keeper/edge/log.h"
#include "keeper/edge/object.h"
#include "keeper/edge/programs.h"
#include "keeper/edge/pulse.h"
#include "keeper/edge/systemd.h"
#include "keeper/paths.h"
#include "keeper/policy/keeper.h"

#include "base/paths.h"
#include "base/utf8.h"
#include "client/overloaded.h"

#include <glob.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <deque>

namespace keeper {

namespace {

/* The run directory as the daemon reads it at the start of a sequence. */
RunDirectoryRead read_run_directory() {
    glob_t found{};
    RunDirectoryRead read;
    if (glob(DUSKVALE_RUN_DIR "/*.run", GLOB_ERR, nullptr, &found) == 0) {
        read.steps.assign(found.gl_pathv, found.gl_pathv + found.gl_pathc);
    }
    globfree(&found);
    return read;
}

class Process {
public:
    Process(const Config &config, GDBusConnection *bus);

private:
    static void on_name_owned(GDBusConnection *, const gchar *, gpointer) noexcept;
    static void on_name_lost(GDBusConnection *, const gchar *, gpointer) noexcept;
    static void on_closed(GDBusConnection *, gboolean, GError *, gpointer) noexcept;
    static gboolean on_alarm(gpointer self) noexcept;

    void take(Input input);
    void carry_out(const Action &action);
    void set_alarm();
    void tell_status();

    Keeper machine;
    Told told = [this](Input input) { take(std::move(input)); };
    Daemon daemon;
    Pulse pulse;
    Unit unit;
    Object object;
    Disk disk;
    Programs programs;
    client::Source alarm;

    /* What carrying out an action brings forth is handled after it. */
    std::deque<Input> inputs;
    bool handling = false;
    std::optional<Duration> watchdog; /* how often the service manager wants to hear of us */
    Time next_watchdog{};
    std::string status_told;
};

Process::Process(const Config &config, GDBusConnection *bus)
    : machine(config), daemon(bus, told), pulse(told), unit(bus, DUSKVALE_DAEMON_UNIT, told),
      object(bus, told), disk(DUSKVALE_KEEPER_STATE_FILE, told),
      programs(DUSKVALE_KEEPER_WATCH_DIR, config.watch_limit, told) {
    uint64_t limit_us = 0;
    if (sd_watchdog_enabled(0, &limit_us) > 0) {
        watchdog = std::chrono::duration_cast<Duration>(std::chrono::microseconds(limit_us)) / 3;
    }
    g_dbus_connection_set_exit_on_close(bus, FALSE);
    g_signal_connect(bus, "closed", G_CALLBACK(on_closed), nullptr);
    take(disk.read());
    follow_corosync(told);
    /* Last, so that whoever sees the name finds an object that answers. */
    g_bus_own_name_on_connection(bus, DUSKVALE_KEEPER_BUS_NAME, G_BUS_NAME_OWNER_FLAGS_DO_NOT_QUEUE,
                                 on_name_owned, on_name_lost, this, nullptr);
}

void Process::on_name_owned(GDBusConnection *, const gchar *, gpointer) noexcept {
    sd_notify(0, "READY=1");
}

void Process::on_name_lost(GDBusConnection *, const gchar *, gpointer) noexcept {
    give_up("the bus does not give the name " DUSKVALE_KEEPER_BUS_NAME
            ": another keeper runs, or its bus policy is not installed");
}

void Process::on_closed(GDBusConnection *, gboolean, GError *, gpointer) noexcept {
    give_up("the connection to the system bus is lost");
}

void Process::take(Input input) {
    inputs.push_back(std::move(input));
    if (handling) {
        return;
    }
    handling = true;
    for (; !inputs.empty(); inputs.pop_front()) {
        for (const Action &action : machine.handle(inputs.front(), now())) {
            carry_out(action);
        }
    }
    handling = false;
    object.publish(machine.published());
    tell_status();
    set_alarm();
}

void Process::carry_out(const Action &action) {
    std::visit(
        client::Overloaded{
            [this](const SendText &send) {
                daemon.send(client::send_message(duskvale_utf8(send.text.c_str())));
            },
            [this](const SendKeepAlive &) { pulse.send(); },
            [this](const PingBus &) { daemon.ping_bus(); },
            [this](const CallTakeOver &) { daemon.take_over(); },
            [this](const WritePreferred &write) { daemon.send(client::set_preferred(write.on)); },
            [this](const ReadSnapshot &) { daemon.read_snapshot(); },
            [this](const ReadRunDirectory &) { inputs.push_back(read_run_directory()); },
            [this](const RunWatchPrograms &) { programs.run(); },
            [this](const KillDaemon &kill) { unit.kill(kill.main_pid); },
            [this](const Store &store) { disk.write(store.stored); },
            [this](const Answer &answer) { object.answer(answer); },
            [](const Log &log) { log_line(static_cast<int>(log.priority), log.text); },
        },
        action);
}

/* For "systemctl status". */
void Process::tell_status() {
    const std::vector<std::string> &causes = machine.published().verdict.causes;
    const std::string status = causes.empty() ? "" : causes.front();
    if (status != status_told) {
        status_told = status;
        sd_notify(0, ("STATUS=" + status).c_str());
    }
}

/* One timer for the machine and the watchdog: the fewer, the less often an idle processor is woken.
 */
void Process::set_alarm() {
    std::optional<Time> wake = machine.next_wake();
    if (watchdog) {
        wake = std::min(wake.value_or(next_watchdog), next_watchdog);
    }
    alarm = {};
    if (wake) {
        const Duration pause = std::max(*wake - now(), Duration(0));
        alarm = client::Source(g_timeout_add_full(
            G_PRIORITY_DEFAULT, static_cast<guint>(pause.count()), on_alarm, this, nullptr));
    }
}

gboolean Process::on_alarm(gpointer user_data) noexcept {
    auto *self = static_cast<Process *>(user_data);
    self->alarm.release();
    /* Early rather than with an alarm of its own soon after. */
    if (self->watchdog && now() + *self->watchdog / 2 >= self->next_watchdog) {
        self->next_watchdog = now() + *self->watchdog;
        sd_notify(0, "WATCHDOG=1");
    }
    self->take(Tick{});
    return G_SOURCE_REMOVE;
}

} // namespace

void run_process(const Config &config) {
    GError *error = nullptr;
    GDBusConnection *bus = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
    if (bus == nullptr) {
        give_up(std::string("no connection to the system bus: ") + error->message);
    }
    const Process process(config, bus);
    g_main_loop_run(g_main_loop_new(nullptr, FALSE));
    _exit(EXIT_SUCCESS);
}

} // namespace keeper
