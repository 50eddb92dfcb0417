#include "base/log.h"
#include "dbus/fixture.h"
#include "support/capture.h"

#include <functional>

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

const char *const property_names[] = {
    "Version",         "LocalNodeId",  "NodeCount",          "MasterNodeId",    "IsMaster",
    "PreferredMaster", "FrozenMaster", "FrozenMasterReason", "LumacratesCount", "InTransition"};

} // namespace

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

    duskvale_notify_left(dbus, 2, 1);
    duskvale_notify_new_master(dbus, 2);
    duskvale_notify_runsteps_done(dbus, 0);
    duskvale_notify_frozen_master(dbus, 0, "over");
    expect_all({"'1.0'", "-1062731519", "1", "2", "false", "true", "0", "''", "4", "false"});
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
    const auto expect = [this](const char *member, const char *arguments, const char *reply,
                               const char *passed_on, const char *logged = "") {
        Capture err;
        EXPECT_EQ(client.method(member, arguments), reply) << member << logged;
        EXPECT_EQ(asked(), passed_on) << member << logged;
        EXPECT_EQ(err.text(), logged);
    };
    const auto state = [this](size_t nodes, uint32_t frozen, int result) {
        duskvale_notify_joined(dbus, 2, nodes);
        duskvale_notify_frozen_master(dbus, frozen, "");
        agent_result = result;
    };
    start();
    duskvale_notify_new_master(dbus, 5);

    state(0, 2, -1);
    expect("SendMessage", "('caf\u00e9',)", "()", "text caf\u00e9;");
    expect("KeepAlive", "()", "()", "alive 7;");
    expect("LumacrateHotplug", "(true, '/x', 'hw', 'rack')", "()", "hotplug 1 /x hw rack;");
    for (const int result : {0, 1}) {
        state(2, 0, result);
        expect("TakeOver", "()", "(true,)", "take;");
        expect("GiveBack", "()", "(true,)", "give;");
        expect("SetFreeze", "(true, 'disk')", "(true,)", "freeze 5 disk;");
    }
    state(2, 0, -1);
    expect("TakeOver", "()", "(false,)", "take;");
    expect("GiveBack", "()", "(false,)", "give;");
    expect("SetFreeze", "(true, '')", "(false,)", "freeze 5 ;");
    state(1, big_id, 0);
    expect("TakeOver", "()", "(false,)", "",
           "WARN: FROZEN to -1062731519 -- ignoring take-over change request\n");
    expect("GiveBack", "()", "(false,)", "",
           "WARN: FROZEN to -1062731519 -- ignoring give-back change request\n");
    expect("SetFreeze", "(false, '')", "(false,)", "",
           "WARN: Only 1 node -- ignoring set-freeze change request\n");
    state(0, 0, 0);
    expect("TakeOver", "()", "(false,)", "",
           "WARN: Only 0 node -- ignoring take-over change request\n");
    expect("GiveBack", "()", "(false,)", "",
           "WARN: Only 0 node -- ignoring give-back change request\n");
    state(2, 4, 0);
    expect("SetFreeze", "(false, 'over')", "(true,)", "freeze 0 over;");
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
    const std::string odd = "caf\xc3"; /* cut in the middle of a character */
    const std::string shown = "'caf\uFFFD'";
    const char *text = odd.c_str();
    start();
    const auto expect = [this](const std::function<gboolean()> &notify, const std::string &logged,
                               const std::string &signal) {
        EXPECT_EQ(debug_lines([&] { EXPECT_TRUE(notify()); }),
                  "DBG(DBUS): duskvale_notify_" + logged + "\n");
        EXPECT_EQ(client.signal(), "Notify" + signal);
    };
    expect([&] { return duskvale_notify_new_master(dbus, big_id); },
           "new_master: nodeid=3232235777", "NewMaster(uint32 3232235777,)");
    expect([&] { return duskvale_notify_joined(dbus, big_id, 3); },
           "joined: nodeid=3232235777 (node_count=3)", "Joined(uint32 3232235777, uint32 3)");
    expect([&] { return duskvale_notify_left(dbus, 2, 1); }, "left: nodeid=2 (node_count=1)",
           "Left(uint32 2, uint32 1)");
    expect([&] { return duskvale_notify_keep_alive(dbus, 2); }, "keep_alive: nodeid=2",
           "KeepAlive(uint32 2,)");
    expect([&] { return duskvale_notify_got_message(dbus, text); }, "got_message: message = " + odd,
           "GotMessage(" + shown + ",)");
    expect(
        [&] { return duskvale_notify_lumacrate_hotplug(dbus, big_id, 4, FALSE, "hw", "at", "/x"); },
        "lumacrate_hotplug: REMOVED(-1062731519): total=4 [hw] @at (/x)",
        "LumacrateHotplug(uint32 3232235777, uint32 4, false, 'hw', 'at', '/x')");
    /* The flag and the texts come as another node sent them. */
    expect([&] { return duskvale_notify_lumacrate_hotplug(dbus, 2, -1, 2, text, text, text); },
           "lumacrate_hotplug: ADDED(2): total=-1 [" + odd + "] @" + odd + " (" + odd + ")",
           "LumacrateHotplug(uint32 2, uint32 4294967295, true, " + shown + ", " + shown + ", " +
               shown + ")");
    expect([&] { return duskvale_notify_runstep_begin(dbus, text, "start"); },
           "runstep_begin: " + odd + "            start", "RunstepBegin(" + shown + ", 'start')");
    expect([&] { return duskvale_notify_runstep_end(dbus, text, "stop", -9); },
           "runstep_end: " + odd + "            stop [status=-9]",
           "RunstepEnd(" + shown + ", 'stop', -9)");
    expect([&] { return duskvale_notify_runsteps_done(dbus, 3); },
           "runsteps_done: Total errors = 3", "RunstepsDone(uint32 3,)");
    EXPECT_TRUE(client.signals.empty());
}

TEST_F(DBusTest, AFreezeIsAnnouncedAndOutlivesARestart) {
    struct {
        uint32_t nodeid;
        const char *reason;
        const char *signal;
        const char *file;
        const char *logged;
        const char *held = "(<''>,)";
        const char *held_after_restart = held;
    } const freezes[] = {
        {3, "disk", "(uint32 3, 'disk')", "3\ndisk\n", "written node 3 -- reason = (4) 'disk'",
         "(<'disk'>,)"},
        {3, nullptr, "(uint32 3, '')", "3\n\n", "written node 3 -- reason = (0) ''"},
        {big_id, "a\nb", "(uint32 3232235777, 'a\\nb')", "-1062731519\na\nb\n",
         "written node 3232235777 -- reason = (3) 'a\nb'", "(<'a\\nb'>,)", "(<'a'>,)"},
        {3, "caf\xe9", "(uint32 3, 'caf\uFFFD')", "3\ncaf\xe9\n",
         "written node 3 -- reason = (4) 'caf\xe9'", "(<'caf\uFFFD'>,)"},
        {0, "over", "(uint32 0, 'over')", "absent", "removed frozen_master"},
        {0, nullptr, "(uint32 0, '')", "absent", "removed frozen_master"},
    };
    start();
    for (const auto &freeze : freezes) {
        const std::string logged =
            debug_lines([&] { duskvale_notify_frozen_master(dbus, freeze.nodeid, freeze.reason); });
        EXPECT_EQ(logged, "DBG(DBUS): duskvale_notify_frozen_master: frozen_master=" +
                              std::to_string(static_cast<gint32>(freeze.nodeid)) + " (" +
                              (freeze.reason != nullptr ? freeze.reason : "") +
                              ")\nDBG(DBUS): update_frozen_master: " + freeze.logged + "\n");
        EXPECT_EQ(client.signal(), "NotifyFrozenMaster" + std::string(freeze.signal));
        EXPECT_EQ(client.get("FrozenMasterReason"), freeze.held);
        EXPECT_EQ(file_text(DUSKVALE_FROZEN_MASTER_FILE), freeze.file);
        start();
        EXPECT_EQ(duskvale_get_frozen_master(dbus), freeze.nodeid);
        EXPECT_EQ(client.get("FrozenMasterReason"), freeze.held_after_restart);
    }
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
