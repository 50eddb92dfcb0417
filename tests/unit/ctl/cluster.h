/*
 * A daemon and its cluster as a client sees them: the real bus object on a real bus, and behind it
 * a cluster that grants every request that reaches it. This node is node 7 unless a test says
 * otherwise.
 */
#pragma once

#include "ctl/golden.h"
#include "dbus/fixture.h"

#include <functional>
#include <utility>

class ClusterTest : public DBusTest {
protected:
    static constexpr uint32_t local = 7;
    static constexpr uint32_t other = big_id;

    void TearDown() override { drain(); }

    /* The daemon, with `members` members and a settled master. */
    void up(uint32_t master = other, unsigned members = 3) {
        drain();
        stop();
        clear_settings();
        start(&granting, local);
        for (unsigned count = 1; count <= members; count++) {
            duskvale_notify_joined(dbus, count == 1 ? local : other, count);
        }
        if (master != 0) {
            duskvale_notify_new_master(dbus, master);
            duskvale_notify_runsteps_done(dbus, 0);
        }
    }

    /* What the cluster does comes after the answer to the request, an event at a time. */
    void later(std::function<void()> event) {
        pending++;
        auto *task = new std::function<void()>([this, event = std::move(event)] {
            event();
            pending--;
        });
        g_timeout_add_full(
            G_PRIORITY_DEFAULT, 1,
            [](gpointer data) -> gboolean {
                (*static_cast<std::function<void()> *>(data))();
                return G_SOURCE_REMOVE;
            },
            task, [](gpointer data) { delete static_cast<std::function<void()> *>(data); });
    }

    /* Until all of that has come. */
    void drain() {
        ASSERT_TRUE(loop_until([&] { return pending == 0; }));
    }

    /* Each command finds all that the one before it has brought about. */
    std::string session(std::initializer_list<Words> command_lines) {
        return ::session(command_lines, [this] { drain(); });
    }

    /* A master is applied, and the run steps of this node run for it. */
    void apply(uint32_t node) {
        duskvale_notify_new_master(dbus, node);
        later([this, node] { run_steps(node == local); });
    }
    void run_steps(bool starting) {
        const char *action = starting ? "start" : "stop";
        duskvale_notify_runstep_begin(dbus, "/usr/share/duskvale/run.d/10-network.run", action);
        duskvale_notify_runstep_end(dbus, "/usr/share/duskvale/run.d/10-network.run", action, 0);
        duskvale_notify_runstep_begin(dbus, "/usr/share/duskvale/run.d/20-db.run", action);
        later([this, action] {
            duskvale_notify_runstep_end(dbus, "/usr/share/duskvale/run.d/20-db.run", action,
                                        step_status);
            duskvale_notify_runsteps_done(dbus, step_status != 0 ? 1 : 0);
            if (after_steps) {
                std::exchange(after_steps, nullptr)();
            }
        });
    }

    int pending = 0;
    bool immediate = false; /* what the cluster does comes before the answer to the request */
    int step_status = 0;
    std::function<void()> after_steps; /* once, in the same breath as the end of the steps */
    std::function<void()> on_take_over = [this] { apply(local); };
    std::function<void()> on_prefer = [] {};
    std::function<void()> while_read; /* once, while the properties are being read */

    /* What comes of a request to the object whose agents have `data`. */
    template <typename Event>
    static int grant(gpointer data, Event event) {
        auto *self = static_cast<ClusterTest *>(static_cast<DBusTest *>(data));
        if (self->immediate) {
            event(*self);
        } else {
            self->later([self, event] { event(*self); });
        }
        return 0;
    }
    static constexpr DuskvaleDBusAgents granting = {
        .text_message =
            [](gpointer d, const char *text) {
                return grant(d, [copy = std::string(text)](auto &c) {
                    duskvale_notify_got_message(c.dbus, copy.c_str());
                });
            },
        .keep_alive =
            [](gpointer d, uint32_t id) {
                return grant(d, [=](auto &c) { duskvale_notify_keep_alive(c.dbus, id); });
            },
        .preferred_master_was_set =
            [](gpointer d, gboolean) { return grant(d, [](auto &c) { c.on_prefer(); }); },
        .frozen_master_was_set =
            [](gpointer d, uint32_t id, const char *reason) {
                return grant(d, [id, copy = std::string(reason)](auto &c) {
                    duskvale_notify_frozen_master(c.dbus, id, copy.c_str());
                });
            },
        .take_over = [](gpointer d) { return grant(d, [](auto &c) { c.on_take_over(); }); },
        .give_back = [](gpointer d) { return grant(d, [](auto &c) { c.apply(other); }); },
        .lumacrate_hotplug = recording.lumacrate_hotplug,
        .lumacrates_count =
            [](gpointer d) {
                grant(d, [](auto &c) {
                    if (c.while_read) {
                        std::exchange(c.while_read, nullptr)();
                    }
                });
                return 2;
            },
    };
};

/* Where systemd says whether corosync runs. */
inline void corosync_runs(bool runs) {
    const std::filesystem::path tools = "/mnt/tools";
    std::filesystem::create_directories(tools);
    std::ofstream(tools / "systemctl") << "#!/bin/sh\nexit " << (runs ? 0 : 3) << "\n";
    permissions(tools / "systemctl", std::filesystem::perms(0755));
    setenv("PATH", (tools.string() + ":" + std::getenv("PATH")).c_str(), 1);
}

/* What is on the terminal of a duskvalectl that runs on one. */
inline std::string on_terminal(const std::string &words) {
    const std::string command = "script -qE never -c \"$DUSKVALECTL " + words + "\" /dev/null";
    return std::regex_replace(shell("TERM=xterm " + command).out, std::regex("\r\n"), "\n");
}
