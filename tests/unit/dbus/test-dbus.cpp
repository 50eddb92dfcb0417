#include "base/log.h"
#include "dbus/fixture.h"
#include "support/capture.h"

#include <functional>
#include <set>

namespace {

const char *const property_names[] = {
    "Version",         "LocalNodeId",  "NodeCount",          "MasterNodeId",    "IsMaster",
    "PreferredMaster", "FrozenMaster", "FrozenMasterReason", "LumacratesCount", "InTransition"};

/* The members of an interface, each with what a client's code depends on. */
std::set<std::string> members(const std::string &xml) {
    g_autoptr(GError) error = nullptr;
    g_autoptr(GDBusNodeInfo) node = g_dbus_node_info_new_for_xml(xml.c_str(), &error);
    EXPECT_EQ(error, nullptr) << error->message;
    const GDBusInterfaceInfo *interface =
        g_dbus_node_info_lookup_interface(node, DUSKVALE_BUS_NAME);
    const auto types = [](GDBusArgInfo **args) {
        std::string result;
        for (; args != nullptr && *args != nullptr; args++) {
            result += (*args)->signature;
        }
        return "(" + result + ")";
    };
    std::set<std::string> result;
    for (GDBusMethodInfo **m = interface->methods; *m != nullptr; m++) {
        result.insert((*m)->name + types((*m)->in_args) + types((*m)->out_args));
    }
    for (GDBusSignalInfo **s = interface->signals; *s != nullptr; s++) {
        result.insert((*s)->name + types((*s)->args));
    }
    for (GDBusPropertyInfo **p = interface->properties; *p != nullptr; p++) {
        result.insert(std::string((*p)->name) + " " + (*p)->signature +
                      std::to_string((*p)->flags));
    }
    return result;
}

} // namespace

TEST_F(DBusTest, ServesTheInterfaceThatItsInstalledDescriptionPromises) {
    start();
    g_autoptr(GVariant) reply = g_variant_parse(
        nullptr, client.call("org.freedesktop.DBus.Introspectable", "Introspect", "()").c_str(),
        nullptr, nullptr, nullptr);
    ASSERT_NE(reply, nullptr);
    const gchar *served = nullptr;
    g_variant_get(reply, "(&s)", &served);
    const std::string described = read_file(
        (std::string(std::getenv("SOURCE_ROOT")) + "/src/dbus/" DUSKVALE_BUS_NAME ".xml").c_str());
    EXPECT_EQ(members(served), members(described));
    EXPECT_EQ(members(served).size(), 26U);
}

TEST_F(DBusTest, PropertiesFollowTheEvents) {
    write_file(DUSKVALE_PREFERRED_MASTER_FILE, "2\n");
    start(&recording, big_id);
    const auto expect_all = [this](const std::vector<std::string> &values) {
        std::string all;
        for (size_t i = 0; i < values.size(); i++) {
            EXPECT_EQ(client.get(property_names[i]), "(<" + values[i] + ">,)");
            all.append(i > 0 ? ", '" : "'").append(property_names[i]);
            all.append("': <").append(values[i]).append(">");
        }
        EXPECT_EQ(client.properties("GetAll"), "({" + all + "},)");
    };
    expect_all({"'1.0'", "-1062731519", "0", "0", "false", "true", "0", "''", "0", "false"});
    EXPECT_EQ(asked(), "count;count;");

    agent_result = 4;
    duskvale_notify_joined(dbus, 2, 2);
    duskvale_notify_new_master(dbus, big_id);
    duskvale_notify_frozen_master(dbus, big_id, "disk");
    expect_all({"'1.0'", "-1062731519", "2", "-1062731519", "true", "true", "-1062731519", "'disk'",
                "4", "true"});

    agent_result = 3;
    duskvale_notify_left(dbus, 2, 1);
    duskvale_notify_new_master(dbus, 2);
    duskvale_notify_runsteps_done(dbus, 0);
    duskvale_notify_frozen_master(dbus, 0, "over");
    expect_all({"'1.0'", "-1062731519", "1", "2", "false", "true", "0", "''", "3", "false"});
    EXPECT_NE(client.get("Missing").front(), '(');
}

TEST_F(DBusTest, OnlyThePreferenceCanBeWritten) {
    start();
    const std::string before = client.properties("GetAll");
    for (const std::string property : property_names) {
        if (property == "PreferredMaster") {
            continue;
        }
        for (const std::string value : {"true", "5", "'text'"}) {
            EXPECT_EQ(client.set(property, value), "org.freedesktop.DBus.Error.AccessDenied");
        }
    }
    EXPECT_EQ(client.properties("GetAll"), before);

    struct {
        const char *value;
        const char *stored;
        const char *told;
    } const writes[] = {
        {"true", "1\n", "preferred 1;"},
        {"true", "1\n", "preferred 1;"}, /* told again although nothing changed */
        {"false", "0\n", "preferred 0;"},
    };
    for (const auto &[value, stored, told] : writes) {
        write_file(DUSKVALE_PREFERRED_MASTER_FILE, {});
        asked();
        EXPECT_EQ(client.set("PreferredMaster", value), "()");
        EXPECT_EQ(asked(), told);
        EXPECT_EQ(read_file(DUSKVALE_PREFERRED_MASTER_FILE), stored);
        EXPECT_EQ(client.get("PreferredMaster"), std::string("(<") + value + ">,)");
    }

    std::filesystem::remove_all("/etc/duskvale");
    Capture err;
    EXPECT_EQ(client.set("PreferredMaster", "true"), "()");
    EXPECT_EQ(err.text(),
              "ERR(duskvale_set_preferred_master):Failed opening "
              "/etc/duskvale/preferred_master for writing: No such file or directory\n");
    EXPECT_EQ(client.get("PreferredMaster"), "(<true>,)");
    EXPECT_EQ(asked(), "preferred 1;");
}

TEST_F(DBusTest, MethodsRefuseOrPassTheRequestOn) {
    struct {
        size_t nodes;
        uint32_t frozen;
        uint32_t master;
        int agent_result;
        const char *member;
        const char *arguments;
        const char *reply;
        const char *asked;
        const char *logged;
    } const calls_made[] = {
        {0, 2, 0, -1, "SendMessage", "('',)", "()", "text ;", ""},
        {0, 2, 0, -1, "SendMessage", "('caf\u00e9',)", "()", "text caf\u00e9;", ""},
        {0, 2, 0, -1, "KeepAlive", "()", "()", "alive 7;", ""},
        {0, 2, 0, -1, "LumacrateHotplug", "(true, '/dev/x', 'hw', 'rack')", "()",
         "hotplug 1 /dev/x hw rack;", ""},
        {0, 2, 0, -1, "LumacrateHotplug", "(false, '', '', '')", "()", "hotplug 0   ;", ""},

        {2, 0, 7, 0, "TakeOver", "()", "(true,)", "take;", ""},
        {2, 0, 7, 1, "TakeOver", "()", "(true,)", "take;", ""},
        {2, 0, 7, -1, "TakeOver", "()", "(false,)", "take;", ""},
        {2, 2, 7, 0, "TakeOver", "()", "(false,)", "",
         "WARN: FROZEN to 2 -- ignoring take-over change request\n"},
        {1, big_id, 7, 0, "TakeOver", "()", "(false,)", "",
         "WARN: FROZEN to -1062731519 -- ignoring take-over change request\n"},
        {0, 0, 7, 0, "TakeOver", "()", "(false,)", "",
         "WARN: Only 0 node -- ignoring take-over change request\n"},

        {3, 0, 7, 0, "GiveBack", "()", "(true,)", "give;", ""},
        {2, 0, 7, 1, "GiveBack", "()", "(true,)", "give;", ""},
        {2, 0, 7, -1, "GiveBack", "()", "(false,)", "give;", ""},
        {2, 2, 7, 0, "GiveBack", "()", "(false,)", "",
         "WARN: FROZEN to 2 -- ignoring give-back change request\n"},
        {1, 0, 7, 0, "GiveBack", "()", "(false,)", "",
         "WARN: Only 1 node -- ignoring give-back change request\n"},

        {2, 0, 5, 0, "SetFreeze", "(true, 'disk')", "(true,)", "freeze 5 disk;", ""},
        {2, 4, 5, 1, "SetFreeze", "(true, 'disk')", "(true,)", "freeze 5 disk;", ""},
        {2, 4, 5, 0, "SetFreeze", "(false, 'over')", "(true,)", "freeze 0 over;", ""},
        {2, 0, 0, 0, "SetFreeze", "(true, '')", "(true,)", "freeze 0 ;", ""},
        {2, 0, 5, -1, "SetFreeze", "(true, '')", "(false,)", "freeze 5 ;", ""},
        {1, 4, 5, 0, "SetFreeze", "(false, '')", "(false,)", "",
         "WARN: Only 1 node -- ignoring set-freeze change request\n"},
    };
    start();
    for (const auto &c : calls_made) {
        duskvale_notify_joined(dbus, 2, c.nodes);
        duskvale_notify_frozen_master(dbus, c.frozen, "");
        duskvale_notify_new_master(dbus, c.master);
        agent_result = c.agent_result;
        asked();
        Capture err;
        EXPECT_EQ(client.method(c.member, c.arguments), c.reply) << c.member << c.logged;
        EXPECT_EQ(asked(), c.asked) << c.member << c.logged;
        EXPECT_EQ(err.text(), c.logged);
    }
}

TEST_F(DBusTest, ARequestWithoutItsAgentCountsAsAccepted) {
    constexpr DuskvaleDBusAgents empty{};
    for (const DuskvaleDBusAgents *agents : {static_cast<const DuskvaleDBusAgents *>(nullptr),
                                             static_cast<const DuskvaleDBusAgents *>(&empty)}) {
        start(agents);
        duskvale_notify_joined(dbus, 2, 2);
        EXPECT_EQ(client.method("SendMessage", "('x',)"), "()");
        EXPECT_EQ(client.method("KeepAlive"), "()");
        EXPECT_EQ(client.method("TakeOver"), "(true,)");
        EXPECT_EQ(client.method("GiveBack"), "(true,)");
        EXPECT_EQ(client.method("SetFreeze", "(true, '')"), "(true,)");
        EXPECT_EQ(client.method("LumacrateHotplug", "(true, '', '', '')"), "()");
        EXPECT_EQ(client.set("PreferredMaster", "true"), "()");
        EXPECT_EQ(client.get("LumacratesCount"), "(<0>,)");
    }
}

TEST_F(DBusTest, EachEventIsLoggedAndAnnounced) {
    const std::string odd = "caf\xc3"; /* cut in the middle of a character */
    const std::string shown = "caf\uFFFD";
    start();
    struct {
        std::function<gboolean(DuskvaleDBus *)> notify;
        std::string logged;
        std::string signal;
    } const events[] = {
        {[](auto *d) { return duskvale_notify_new_master(d, big_id); },
         "new_master: nodeid=3232235777\n", "NotifyNewMaster(uint32 3232235777,)"},
        {[](auto *d) { return duskvale_notify_joined(d, big_id, 3); },
         "joined: nodeid=3232235777 (node_count=3)\n", "NotifyJoined(uint32 3232235777, uint32 3)"},
        {[](auto *d) { return duskvale_notify_left(d, 2, 1); }, "left: nodeid=2 (node_count=1)\n",
         "NotifyLeft(uint32 2, uint32 1)"},
        {[](auto *d) { return duskvale_notify_keep_alive(d, 2); }, "keep_alive: nodeid=2\n",
         "NotifyKeepAlive(uint32 2,)"},
        {[](auto *d) { return duskvale_notify_got_message(d, "hello"); },
         "got_message: message = hello\n", "NotifyGotMessage('hello',)"},
        {[&](auto *d) { return duskvale_notify_got_message(d, odd.c_str()); },
         "got_message: message = " + odd + "\n", "NotifyGotMessage('" + shown + "',)"},
        {[](auto *d) {
             return duskvale_notify_lumacrate_hotplug(d, big_id, 4, TRUE, "hw", "rack", "/sys/x");
         },
         "lumacrate_hotplug: ADDED(-1062731519): total=4 [hw] @rack (/sys/x)\n",
         "NotifyLumacrateHotplug(uint32 3232235777, uint32 4, true, 'hw', 'rack', '/sys/x')"},
        {[](auto *d) {
             return duskvale_notify_lumacrate_hotplug(d, 2, 0, FALSE, "", "", "/sys/x");
         },
         "lumacrate_hotplug: REMOVED(2): total=0 [] @ (/sys/x)\n",
         "NotifyLumacrateHotplug(uint32 2, uint32 0, false, '', '', '/sys/x')"},
        /* The flag and the texts come as another node sent them. */
        {[&](auto *d) {
             return duskvale_notify_lumacrate_hotplug(d, 2, -1, 2, odd.c_str(), odd.c_str(),
                                                      odd.c_str());
         },
         "lumacrate_hotplug: ADDED(2): total=-1 [" + odd + "] @" + odd + " (" + odd + ")\n",
         "NotifyLumacrateHotplug(uint32 2, uint32 4294967295, true, '" + shown + "', '" + shown +
             "', '" + shown + "')"},
        {[](auto *d) { return duskvale_notify_runstep_begin(d, "/a.run", "start"); },
         "runstep_begin: /a.run          start\n", "NotifyRunstepBegin('/a.run', 'start')"},
        {[&](auto *d) { return duskvale_notify_runstep_begin(d, odd.c_str(), "stop"); },
         "runstep_begin: " + odd + std::string(12, ' ') + "stop\n",
         "NotifyRunstepBegin('" + shown + "', 'stop')"},
        {[&](auto *d) { return duskvale_notify_runstep_end(d, odd.c_str(), "stop", 256); },
         "runstep_end: " + odd + std::string(12, ' ') + "stop [status=256]\n",
         "NotifyRunstepEnd('" + shown + "', 'stop', 256)"},
        {[](auto *d) { return duskvale_notify_runstep_end(d, "/usr/share/x.run", "start", -9); },
         "runstep_end: /usr/share/x.run start [status=-9]\n",
         "NotifyRunstepEnd('/usr/share/x.run', 'start', -9)"},
        {[](auto *d) { return duskvale_notify_runsteps_done(d, 3); },
         "runsteps_done: Total errors = 3\n", "NotifyRunstepsDone(uint32 3,)"},
    };
    for (const auto &event : events) {
        Capture err;
        duskvale_debug_set_categories(1 << static_cast<int>(LogCategory::dbus));
        duskvale_debug_set_level(LOG_DEBUG);
        EXPECT_TRUE(event.notify(dbus));
        duskvale_debug_set_level(LOG_INFO);
        EXPECT_EQ(err.text(), "DBG(DBUS): duskvale_notify_" + event.logged);
        EXPECT_EQ(client.signal(), event.signal);
    }
    EXPECT_TRUE(client.signals.empty());
}

TEST_F(DBusTest, AFreezeIsAnnouncedWithTheReasonItCameWith) {
    struct {
        uint32_t nodeid;
        const char *reason;
        const char *signal;
        const char *held;
    } const freezes[] = {
        {3, "disk", "NotifyFrozenMaster(uint32 3, 'disk')", "(<'disk'>,)"},
        {big_id, nullptr, "NotifyFrozenMaster(uint32 3232235777, '')", "(<''>,)"},
        {3, "caf\xc3", "NotifyFrozenMaster(uint32 3, 'caf\uFFFD')", "(<'caf\uFFFD'>,)"},
        {0, "done", "NotifyFrozenMaster(uint32 0, 'done')", "(<''>,)"},
    };
    start();
    for (const auto &freeze : freezes) {
        EXPECT_TRUE(duskvale_notify_frozen_master(dbus, freeze.nodeid, freeze.reason));
        EXPECT_EQ(client.signal(), freeze.signal);
        EXPECT_EQ(client.get("FrozenMasterReason"), freeze.held);
    }
    /* One that was edited by hand, too. */
    write_file(DUSKVALE_FROZEN_MASTER_FILE, "3\ncaf\xe9\n");
    start();
    EXPECT_EQ(client.get("FrozenMasterReason"), "(<'caf\uFFFD'>,)");
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
