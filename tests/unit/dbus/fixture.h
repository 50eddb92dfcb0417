/* A registered object in this process, with agents that write down what they are asked. */
#pragma once

#include "dbus/bus.h"
#include "dbus/notify.h"
#include "dbus/settings-file.h"

#include <dbus/dbus.h>
#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

/* A call of the object, and what root is answered. */
struct Request {
    const char *interface;
    const char *member;
    const char *arguments;
    const char *reply;
};
inline constexpr Request set_preferred = {
    "org.freedesktop.DBus.Properties", "Set",
    "('com.norvel.DuskvaleCorosync', 'PreferredMaster', <true>)", "()"};
/* One of each kind that only root may make. */
inline constexpr std::array requests = {
    Request{DUSKVALE_BUS_NAME, "SendMessage", "('x',)", "()"},
    Request{DUSKVALE_BUS_NAME, "KeepAlive", "()", "()"},
    Request{DUSKVALE_BUS_NAME, "TakeOver", "()", "(true,)"},
    Request{DUSKVALE_BUS_NAME, "GiveBack", "()", "(true,)"},
    Request{DUSKVALE_BUS_NAME, "SetFreeze", "(true, 'x')", "(true,)"},
    Request{DUSKVALE_BUS_NAME, "LumacrateHotplug", "(true, '', '', '')", "()"},
    set_preferred,
};

class DBusTest : public testing::Test {
protected:
    static constexpr uint32_t big_id = 3232235777U;

    DBusTest() { clear_settings(); }
    ~DBusTest() override {
        stop();
        clear_settings();
    }

    static Bus &bus() {
        static Bus shared;
        return shared;
    }

    void start(const DuskvaleDBusAgents *agents = &recording, uint32_t local_nodeid = 7) {
        stop();
        dbus = duskvale_dbus_new(local_nodeid, agents, this);
        ASSERT_TRUE(duskvale_dbus_register(dbus));
    }
    void stop() {
        g_clear_object(&dbus);
        /* The connection is libdbus' own and outlives the object. */
        DBusConnection *connection = dbus_bus_get(DBUS_BUS_SYSTEM, nullptr);
        dbus_bus_release_name(connection, DUSKVALE_BUS_NAME, nullptr);
        dbus_connection_unref(connection);
    }
    /* The agent calls since the last time. */
    std::string asked() {
        std::string result;
        result.swap(calls);
        return result;
    }

    static int record(gpointer user_data, const std::string &call) {
        auto *self = static_cast<DBusTest *>(user_data);
        self->calls += call + ";";
        return self->agent_result;
    }
    static constexpr DuskvaleDBusAgents recording = {
        .text_message = [](gpointer d,
                           const char *text) { return record(d, "text " + std::string(text)); },
        .keep_alive = [](gpointer d,
                         uint32_t id) { return record(d, "alive " + std::to_string(id)); },
        .preferred_master_was_set =
            [](gpointer d, gboolean set) { return record(d, "preferred " + std::to_string(set)); },
        .frozen_master_was_set =
            [](gpointer d, uint32_t id, const char *reason) {
                return record(d, "freeze " + std::to_string(id) + " " + reason);
            },
        .take_over = [](gpointer d) { return record(d, "take"); },
        .give_back = [](gpointer d) { return record(d, "give"); },
        .lumacrate_hotplug =
            [](gpointer d, gboolean added, const char *devpath, const char *hardware_id,
               const char *location) {
                return record(d, "hotplug " + std::to_string(added) + " " + devpath + " " +
                                     hardware_id + " " + location);
            },
        .lumacrates_count = [](gpointer d) { return record(d, "count"); },
    };

    DuskvaleDBus *dbus = nullptr;
    int agent_result = 0;
    std::string calls;
    Client client{bus()};
};
