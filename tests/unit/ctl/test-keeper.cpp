/* What duskvalectl makes of a keeper: one of which only the answers are there. */
#include "ctl/cluster.h"

#include "client/keeper.h"

namespace {

constexpr int64_t second = G_USEC_PER_SEC;

/* Node 7 is alpha, the master; node 8 is beta; node 9 has no name and never spoke. */
std::string properties(const std::string &alpha, const std::string &verdict) {
    const int64_t now = g_get_monotonic_time();
    return "({'LocalNode': <uint32 7>, 'Nodes': <[{'Id': <uint32 7>, 'Name': <'alpha'>, 'Role': "
           "<'master'>, 'Quorum': <'yes'>, 'Member': <true>, 'Listed': <true>, " +
           alpha +
           "}, {'Id': <uint32 8>, 'Name': <'beta\\u001b[2J'>, 'Role': <'slave'>, 'Quorum': "
           "<'yes'>, "
           "'Steps': <'running'>, 'Step': <'50-db.run'>, 'Since': <uint64 " +
           std::to_string(now - 12 * second) +
           ">, 'Unfit': <'its steps run'>, 'Member': <true>, 'Listed': <true>, 'Preferred': "
           "<true>}, {'Id': <uint32 9>, 'Role': <'down'>, 'Steps': <'unknown'>, 'Quorum': "
           "<'unknown'>, 'Unfit': <'its keeper is not heard'>, 'Listed': <true>}]>, 'LastHeard': "
           "<{uint32 8: uint64 " +
           std::to_string(now - 2 * second) + "}>, " + verdict +
           ", 'Stay': <'on'>, 'QuorumGuard': <'this node has one vote'>, 'FailedSteps': <uint64 "
           "3>, 'MasterChanges': <uint64 2>, 'Aborts': <uint64 1>},)";
}

constexpr const char *settled = "'Steps': <'settled'>";
constexpr const char *failed =
    "'Steps': <'failed'>, 'Step': <'50-db.run'>, 'StepStatus': <768>, 'Unfit': <'50-db.run'>";
constexpr const char *warning = "'Verdict': <'warning'>, 'Causes': <['beta is busy', 'so | so']>";
constexpr const char *critical = "'Verdict': <'critical'>, 'Causes': <['50-db.run failed']>";

class Keeper : public ClusterTest {
protected:
    Keeper() : speaker(bus()) {
        speaker.driver("RequestName", "('" DUSKVALE_KEEPER_BUS_NAME "', uint32 0)");
        g_dbus_connection_add_filter(speaker.raw(), on_message, this, nullptr);
    }

    /* In the connection's own thread. */
    static GDBusMessage *on_message(GDBusConnection *connection, GDBusMessage *message,
                                    gboolean incoming, gpointer self) {
        const gchar *member = g_dbus_message_get_member(message);
        if (!incoming ||
            g_strcmp0(g_dbus_message_get_path(message), DUSKVALE_KEEPER_BUS_PATH) != 0) {
            return message;
        }
        auto *keeper = static_cast<Keeper *>(self);
        GDBusMessage *reply = nullptr;
        if (g_str_equal(member, "GetAll")) {
            reply = g_dbus_message_new_method_reply(message);
            g_dbus_message_set_body(
                reply, g_variant_parse(nullptr, keeper->state.c_str(), nullptr, nullptr, nullptr));
        } else if (keeper->refusal.empty()) {
            g_autofree char *asked = g_variant_print(g_dbus_message_get_body(message) != nullptr
                                                         ? g_dbus_message_get_body(message)
                                                         : g_variant_new("()"),
                                                     FALSE);
            reply = g_dbus_message_new_method_reply(message);
            g_dbus_message_set_body(
                reply, g_variant_new("(s)", (std::string(member) + asked + " is done").c_str()));
        } else {
            reply = g_dbus_message_new_method_error_literal(
                message, DUSKVALE_KEEPER_BUS_NAME ".Error.Refused", keeper->refusal.c_str());
        }
        g_dbus_connection_send_message(connection, reply, G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr,
                                       nullptr);
        g_object_unref(reply);
        g_object_unref(message);
        return nullptr;
    }

    Client speaker;
    std::string state;
    std::string refusal;
};

} // namespace

TEST_F(Keeper, isWhatStatusCheckMetricsAndDoctorGoBy) {
    up(local);
    state = properties(settled, warning);
    std::string text = "### the other node is busy\n" +
                       session({{"status"}, {"check"}, {"check", "--members=4"}, {"metrics"}});
    state = properties(failed, critical);
    text += "### a step failed\n" + session({{"status"}, {"check"}}) +
            shell("duskvalectl doctor | grep -A1 ' keeper '").out;
    state = "(@a{sv} {},)";
    text += "### not a keeper\n" + session({{"check"}});
    expect_timed_golden("keeper", text);
}

TEST_F(Keeper, isAskedForEachMove) {
    up(other);
    state = properties(settled, warning);
    std::string text = session({{"move"},
                                {"move", "alpha", "--wait"},
                                {"move", "9"},
                                {"move", "delta"},
                                {"take-over"},
                                {"prefer", "on"},
                                {"fit"}});
    up(local);
    text += "### from the master\n" + session({{"give-back"}});
    state = properties(failed, critical);
    text += "### a step fails\n" + session({{"move", "alpha", "--wait"}});
    refusal = "no other node is fit";
    text += "### refused\n" + session({{"move"}, {"give-back"}, {"fit"}});
    expect_golden("keeper-requests", text);
}
