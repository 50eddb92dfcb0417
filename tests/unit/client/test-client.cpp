/* The client against the interface that the daemon publishes: what it reads, and what it calls. */
#include "client/announcement.h"
#include "client/call.h"
#include "client/snapshot.h"

#include "base/paths.h"

#include <gio/gio.h>
#include <gtest/gtest.h>

#include <set>
#include <string>

using namespace client;

namespace {

using NodeInfo = std::unique_ptr<GDBusNodeInfo, Release<g_dbus_node_info_unref>>;

/* The file from which the daemon's glue is made. */
GDBusInterfaceInfo *published() {
    static const NodeInfo node = [] {
        g_autofree char *xml = nullptr;
        g_file_get_contents(INTERFACE_XML, &xml, nullptr, nullptr);
        return NodeInfo(g_dbus_node_info_new_for_xml(xml, nullptr));
    }();
    return g_dbus_node_info_lookup_interface(node.get(), DUSKVALE_BUS_INTERFACE);
}

std::string type_of(GDBusArgInfo **arguments) {
    std::string type = "(";
    for (; arguments != nullptr && *arguments != nullptr; arguments++) {
        type += (*arguments)->signature;
    }
    return type + ")";
}

/* In the format of g_variant_parse(3). */
Variant parsed(const char *text) {
    return Variant(g_variant_parse(nullptr, text, nullptr, nullptr, nullptr));
}

} // namespace

TEST(Announcement, ReadsEverySignalOfTheInterface) {
    const struct {
        const char *signal;
        const char *arguments;
        Announcement expected;
    } cases[] = {
        {"NotifyNewMaster", "(uint32 3232235777,)", NewMaster{3232235777}},
        {"NotifyFrozenMaster", "(uint32 3, 'night')", FrozenMaster{3, "night"}},
        {"NotifyJoined", "(uint32 3, uint32 2)", Joined{3, 2}},
        {"NotifyLeft", "(uint32 3, uint32 2)", Left{3, 2}},
        {"NotifyKeepAlive", "(uint32 3,)", KeepAlive{3}},
        {"NotifyGotMessage", "('hello',)", Text{"hello"}},
        {"NotifyLumacrateHotplug", "(uint32 3, uint32 2, true, 'h', 'l', 'd')",
         Hotplug{3, 2, true, "h", "l", "d"}},
        {"NotifyRunstepBegin", "('/a.run', 'start')", StepBegin{"/a.run", "start"}},
        {"NotifyRunstepEnd", "('/a.run', 'stop', 256)", StepEnd{"/a.run", "stop", 256}},
        {"NotifyRunstepsDone", "(uint32 2,)", StepsDone{2}},
    };
    std::set<std::string> read;
    for (const auto &[signal, arguments, expected] : cases) {
        const Variant given = parsed(arguments);
        EXPECT_EQ(read_announcement(signal, given.get()), std::optional(expected)) << signal;
        EXPECT_EQ(read_announcement(signal, parsed("(true,)").get()), std::nullopt) << signal;
        const GDBusSignalInfo *info = g_dbus_interface_info_lookup_signal(published(), signal);
        ASSERT_NE(info, nullptr) << signal;
        EXPECT_EQ(type_of(info->args), g_variant_get_type_string(given.get())) << signal;
        read.insert(signal);
    }
    for (GDBusSignalInfo **info = published()->signals; *info != nullptr; info++) {
        EXPECT_TRUE(read.contains((*info)->name)) << (*info)->name;
    }
    EXPECT_EQ(read_announcement("NotifyOfTomorrow", parsed("()").get()), std::nullopt);
}

TEST(Call, FitsTheInterface) {
    Call calls[] = {take_over(),
                    give_back(),
                    freeze("night"),
                    unfreeze(),
                    send_message("hi"),
                    keep_alive(),
                    hotplug(true, "d", "h", "l")};
    for (const Call &call : calls) {
        const GDBusMethodInfo *info = g_dbus_interface_info_lookup_method(published(), call.method);
        ASSERT_NE(info, nullptr) << call.method;
        EXPECT_EQ(type_of(info->in_args),
                  call.arguments ? g_variant_get_type_string(call.arguments.get()) : "()")
            << call.method;
    }
}

TEST(Call, ReadsTheStatusWhereThereIsOne) {
    EXPECT_EQ(read_status(parsed("(false,)").get()), false);
    EXPECT_EQ(read_status(parsed("(true,)").get()), true);
    EXPECT_EQ(read_status(parsed("()").get()), true);
    EXPECT_EQ(read_status(parsed("(1,)").get()), std::nullopt);
}

TEST(Snapshot, ReadsAllPropertiesAndNamesTheOneThatIsMissing) {
    const char *all = "({'Version': <'1.0'>, 'LocalNodeId': <-1062731519>, 'NodeCount': <3>, "
                      "'MasterNodeId': <2>, 'IsMaster': <true>, 'PreferredMaster': <true>, "
                      "'FrozenMaster': <4>, 'FrozenMasterReason': <'night'>, "
                      "'LumacratesCount': <5>, 'InTransition': <true>, 'Later': <1>},)";
    const Snapshot expected{.interface_version = "1.0",
                            .local_node = 3232235777,
                            .master_node = 2,
                            .frozen_node = 4,
                            .frozen_reason = "night",
                            .members = 3,
                            .devices = 5,
                            .is_master = true,
                            .preferred = true,
                            .in_transition = true};
    EXPECT_EQ(read_snapshot(parsed(all).get()), std::optional(expected));

    std::string without = all;
    without.replace(without.find("NodeCount"), 9, "nodeCount");
    std::string fault;
    EXPECT_EQ(read_snapshot(parsed(without.c_str()).get(), &fault), std::nullopt);
    EXPECT_EQ(fault, "it lacks the property NodeCount");
    EXPECT_EQ(read_snapshot(parsed("(1,)").get()), std::nullopt);
}
