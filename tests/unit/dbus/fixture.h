/* A registered object in this process, with agents that write down what they are asked. */
#pragma once

#include "dbus/bus.h"
#include "dbus/notify.h"
#include "support/file.h"

#include <dbus/dbus.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

inline void write_file(const char *path, const std::string &content) {
    std::filesystem::remove_all(path);
    std::ofstream(path) << content;
}

/* The directory of the daemon's settings is there, and empty. */
inline void clear_settings() {
    std::filesystem::remove_all("/etc/duskvale");
    std::filesystem::create_directory("/etc/duskvale");
}

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
