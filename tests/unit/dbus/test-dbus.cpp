#include "base/log.h"
#include "dbus/fixture.h"
#include "support/capture.h"
#include "support/golden.h"

#include <functional>
#include <regex>
#include <set>
#include <tuple>

namespace {

/* What `call` writes with the bus object's debug lines on. */
std::string debug_lines(const std::function<void()> &call) {
    Capture err;
    duskvale_debug_set_categories(1 << static_cast<int>(LogCategory::dbus));
    duskvale_debug_set_level(LOG_DEBUG);
    call();
    duskvale_debug_set_level(LOG_INFO);
    return err.text();
}

/* For a file: what is not ASCII as octal numbers. */
std::string escaped(const std::string &text) {
    g_autofree gchar *result = g_strescape(text.c_str(), "\n\\\"");
    return result;
}

/* The members of the interface in `xml`, each with the types that a client's code depends on. */
std::set<std::string> members(const std::string &xml) {
    static const std::regex token(
        "<(?:method|signal|property) name=\"(\\w+)\"|(?:type|direction|access)=\"(\\w+)\"");
    const size_t begin = xml.find("<interface name=\"" DUSKVALE_BUS_NAME "\"");
    const std::string interface = xml.substr(begin, xml.find("</interface>", begin) - begin);
    std::vector<std::string> result;
    for (std::sregex_iterator at(interface.begin(), interface.end(), token), end; at != end; ++at) {
        if ((*at)[1].matched) {
            result.push_back((*at)[1]);
        } else {
            result.back() += " " + (*at)[2].str();
        }
    }
    return {result.begin(), result.end()};
}

const char *const property_names[] = {
    "Version",         "LocalNodeId",  "NodeCount",          "MasterNodeId",    "IsMaster",
    "PreferredMaster", "FrozenMaster", "FrozenMasterReason", "LumacratesCount", "InTransition"};

} // namespace

TEST_F(DBusTest, ServesTheInterfaceThatItsInstalledDescriptionPromises) {
    start();
    const std::string reply =
        client.call("org.freedesktop.DBus.Introspectable", "Introspect", "()");
    g_autofree gchar *served = g_strcompress(reply.c_str());
    const std::string source = std::getenv("SOURCE_ROOT");
    EXPECT_EQ(members(served), members(file_text(source + "/src/dbus/" DUSKVALE_BUS_NAME ".xml")));
    EXPECT_EQ(members(served).size(), 26U);
}

TEST_F(DBusTest, PropertiesFollowTheEvents) {
    std::string text;
    const auto read_all = [&] {
        for (const char *name : property_names) {
            text += client.get(name) + "\n";
        }
        text += client.properties("GetAll") + "\n";
    };
    write_file(DUSKVALE_PREFERRED_MASTER_FILE, "2\n");
    start(&recording, big_id);
    read_all();
    EXPECT_EQ(asked(), "count;count;");

    agent_result = 4;
    duskvale_notify_joined(dbus, 2, 2);
    duskvale_notify_new_master(dbus, big_id);
    duskvale_notify_frozen_master(dbus, big_id, "disk");
    read_all();

    duskvale_notify_left(dbus, 2, 1);
    duskvale_notify_new_master(dbus, 2);
    duskvale_notify_runsteps_done(dbus, 0);
    duskvale_notify_frozen_master(dbus, 0, "over");
    read_all();
    expect_golden("properties", text);
    EXPECT_NE(client.get("Missing").front(), '(');
}

TEST_F(DBusTest, OnlyThePreferenceCanBeWritten) {
    start();
    const std::string before = client.properties("GetAll");
    for (const std::string property : property_names) {
        for (const std::string value : {"true", "5", "'text'"}) {
            if (property != "PreferredMaster") {
                EXPECT_EQ(client.set(property, value), "org.freedesktop.DBus.Error.AccessDenied");
            }
        }
    }
    EXPECT_EQ(client.properties("GetAll"), before);
    asked();

    const auto write = [this](const std::string &value, const std::string &number) {
        EXPECT_EQ(client.set("PreferredMaster", value), "()");
        EXPECT_EQ(client.get("PreferredMaster"), "(<" + value + ">,)");
        EXPECT_EQ(asked(), "preferred " + number + ";") << "also when nothing has changed";
        return file_text(DUSKVALE_PREFERRED_MASTER_FILE);
    };
    EXPECT_EQ(write("true", "1"), "1\n");
    std::filesystem::remove(DUSKVALE_PREFERRED_MASTER_FILE);
    EXPECT_EQ(write("true", "1"), "1\n");
    EXPECT_EQ(write("false", "0"), "0\n");

    std::filesystem::remove_all("/etc/duskvale");
    Capture err;
    EXPECT_EQ(write("true", "1"), "absent");
    EXPECT_EQ(err.text(),
              "ERR(duskvale_set_preferred_master):Failed opening "
              "/etc/duskvale/preferred_master for writing: No such file or directory\n");
}

TEST_F(DBusTest, MethodsRefuseOrPassTheRequestOn) {
    std::string text;
    const auto ask = [&](const std::string &member, const std::string &arguments) {
        Capture err;
        const std::string reply = client.method(member.c_str(), arguments);
        text += member + arguments + " -> " + reply + "\n" + err.text();
        text += calls.empty() ? "" : "    " + asked() + "\n";
    };
    start();
    duskvale_notify_new_master(dbus, 5);
    const std::tuple<size_t, uint32_t, int> states[] = {
        {0, 0, 0}, {1, big_id, 0}, {2, 0, -1}, {2, 0, 0}, {2, 0, 1}, {3, 2, 0},
    };
    for (const auto &[nodes, frozen, result] : states) {
        duskvale_notify_joined(dbus, 2, nodes);
        duskvale_notify_frozen_master(dbus, frozen, "");
        agent_result = result;
        text += "### " + std::to_string(nodes) + " nodes, frozen to " + std::to_string(frozen) +
                ", the agents answer " + std::to_string(result) + "\n";
        ask("SendMessage", "('caf\u00e9',)");
        ask("KeepAlive", "()");
        ask("LumacrateHotplug", "(true, '/x', 'hw', 'rack')");
        ask("TakeOver", "()");
        ask("GiveBack", "()");
        ask("SetFreeze", "(true, 'disk')");
        ask("SetFreeze", "(false, 'over')");
    }
    expect_golden("methods", text);
}

TEST_F(DBusTest, ARequestWithoutItsAgentCountsAsAccepted) {
    constexpr DuskvaleDBusAgents empty{};
    for (const auto *agents : {static_cast<const DuskvaleDBusAgents *>(nullptr), &empty}) {
        start(agents);
        duskvale_notify_joined(dbus, 2, 2);
        for (const auto &[interface, member, arguments, reply] : requests) {
            EXPECT_EQ(client.call(interface, member, arguments), reply) << member;
        }
        EXPECT_EQ(client.get("LumacratesCount"), "(<0>,)");
    }
}

TEST_F(DBusTest, EachEventIsLoggedAndAnnounced) {
    const char *odd = "caf\xc3"; /* cut in the middle of a character, as another node sent it */
    start();
    std::string text = debug_lines([&] {
        EXPECT_TRUE(duskvale_notify_new_master(dbus, big_id));
        EXPECT_TRUE(duskvale_notify_joined(dbus, big_id, 3));
        EXPECT_TRUE(duskvale_notify_left(dbus, 2, 1));
        EXPECT_TRUE(duskvale_notify_keep_alive(dbus, 2));
        EXPECT_TRUE(duskvale_notify_got_message(dbus, odd));
        EXPECT_TRUE(duskvale_notify_lumacrate_hotplug(dbus, big_id, 4, FALSE, "hw", "at", "/x"));
        EXPECT_TRUE(duskvale_notify_lumacrate_hotplug(dbus, 2, -1, 2, odd, odd, odd));
        EXPECT_TRUE(duskvale_notify_runstep_begin(dbus, odd, "start"));
        EXPECT_TRUE(duskvale_notify_runstep_end(dbus, odd, "stop", -9));
        EXPECT_TRUE(duskvale_notify_runsteps_done(dbus, 3));
    });
    for (int event = 0; event < 10; event++) {
        text += client.signal() + "\n";
    }
    expect_golden("events", escaped(text));
    EXPECT_TRUE(client.signals.empty());
}

TEST_F(DBusTest, AFreezeIsAnnouncedAndOutlivesARestart) {
    const std::pair<uint32_t, const char *> freezes[] = {
        {3, "disk"}, {3, nullptr}, {big_id, "a\nb"}, {3, "caf\xe9"}, {0, "over"}, {0, nullptr},
    };
    std::string text;
    start();
    for (const auto &[nodeid, reason] : freezes) {
        text += debug_lines(
            [&, id = nodeid, why = reason] { duskvale_notify_frozen_master(dbus, id, why); });
        text += client.signal() + "\nheld " + client.get("FrozenMasterReason");
        text += "\nin the file:\n" + file_text(DUSKVALE_FROZEN_MASTER_FILE) + "\n";
        start();
        EXPECT_EQ(duskvale_get_frozen_master(dbus), nodeid);
        text += "held after a restart " + client.get("FrozenMasterReason") + "\n\n";
    }
    expect_golden("freezes", escaped(text));
    duskvale_notify_frozen_master(dbus, 3, "disk");
    duskvale_notify_frozen_master(dbus, 4, duskvale_get_frozen_master_reason(dbus));
    EXPECT_EQ(client.get("FrozenMasterReason"), "(<'disk'>,)");
}

TEST_F(DBusTest, ANewMasterIsStoredAfterItsSignalAndBeforeAnyRead) {
    start();
    std::string during;
    const auto handler = +[](DuskvaleDBus *object, guint nodeid, gpointer seen) {
        gint master = -1;
        gboolean in_transition = FALSE;
        g_object_get(object, "master_node_id", &master, "in_transition", &in_transition, nullptr);
        *static_cast<std::string *>(seen) += std::to_string(nodeid) + " " + std::to_string(master) +
                                             " " + std::to_string(in_transition) + ";";
    };
    g_signal_connect(dbus, "notify_new_master", G_CALLBACK(handler), &during);
    duskvale_notify_new_master(dbus, 7);
    duskvale_notify_runsteps_done(dbus, 0);
    duskvale_notify_new_master(dbus, 7); /* the same again */
    EXPECT_EQ(during, "7 0 1;7 7 1;");
    EXPECT_EQ(client.get("IsMaster"), "(<true>,)");
    EXPECT_EQ(client.get("InTransition"), "(<true>,)");
}
