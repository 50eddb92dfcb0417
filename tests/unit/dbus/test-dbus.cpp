/* The object on a system bus: what clients ask, what its owner is asked, and what is announced. */
#include "dbus/fixture.h"

#include "base/log.h"
#include "support/capture.h"
#include "support/script.h"

#include <algorithm>
#include <regex>

namespace {

const std::filesystem::path settings = "/etc/duskvale";

/* A file in one line. */
std::string quoted(std::string file) {
    std::ranges::replace(file, '\n', '|');
    return file + "\n";
}

/* The members of the interface in `xml`, each with the types that a client's code depends on. */
Words members(const std::string &xml) {
    static const std::regex token(
        "<(?:method|signal|property) name=\"(\\w+)\"|(?:type|direction|access)=\"(\\w+)\"");
    const size_t begin = xml.find("<interface name=\"" DUSKVALE_BUS_NAME "\"");
    const std::string interface = xml.substr(begin, xml.find("</interface>", begin) - begin);
    Words result;
    for (std::sregex_iterator at(interface.begin(), interface.end(), token), end; at != end; ++at) {
        if ((*at)[1].matched) {
            result.push_back((*at)[1]);
        } else {
            result.back() += " " + (*at)[2].str();
        }
    }
    std::ranges::sort(result);
    return result;
}

/* While the signal is sent. */
void on_new_master(DuskvaleDBus *object, guint id, gpointer seen) {
    gint master = -1;
    gboolean in_transition = FALSE;
    g_object_get(object, "master_node_id", &master, "in_transition", &in_transition, nullptr);
    *static_cast<std::string *>(seen) += "while " + std::to_string(id) + " is announced: master " +
                                         std::to_string(master) + ", in transition " +
                                         std::to_string(in_transition) + "\n";
}

struct Session : DBusTest {
    Session() {
        duskvale_debug_set_level(LOG_INFO);
        duskvale_debug_set_categories(1 << static_cast<int>(LogCategory::dbus));
    }
    void TestBody() override {}

    /* What was logged and asked of the owner, and what clients were answered and heard. */
    std::string outcome() {
        if (exported) {
            /* Announcements come before the answer to what was asked after them. */
            for (Client *listener : {&client, &stranger}) {
                listener->call("org.freedesktop.DBus.Peer", "Ping", "()");
            }
            EXPECT_EQ(stranger.signals, client.signals);
            stranger.signals.clear();
        }
        std::string text = log.take() + std::exchange(during, {});
        for (const std::string &call : split(asked(), ";")) {
            text += call.empty() ? "" : "asked: " + call + "\n";
        }
        text += std::exchange(answers, {});
        for (const std::string &signal : std::exchange(client.signals, {})) {
            text += "signal: " + signal + "\n";
        }
        return text;
    }

    void load() {
        stop();
        exported = false;
        dbus = duskvale_dbus_new(number(w[1]), nullptr, nullptr);
    }
    void start_object() {
        start(agents.at(w[2]), number(w[1]));
        exported = true;
        g_signal_connect(dbus, "notify_new_master", G_CALLBACK(on_new_master), &during);
    }
    void call(Client &from) {
        answers += from.call(w[1] == "-" ? nullptr : w[1].c_str(), w[2].c_str(),
                             w.size() > 3 ? rest(w, 3) : "()", destination) +
                   "\n";
    }
    std::string held() const {
        const char *reason = duskvale_get_frozen_master_reason(dbus);
        return "preferred " + std::to_string(duskvale_get_preferred_master(dbus)) + ", frozen to " +
               std::to_string(duskvale_get_frozen_master(dbus)) + " '" +
               (reason != nullptr ? reason : "") + "'\n";
    }
    void address(const std::string &to) {
        const std::string owner = client.driver("GetNameOwner", "('" DUSKVALE_BUS_NAME "',)");
        destination = to == "unique" ? owner.substr(2, owner.size() - 5) : DUSKVALE_BUS_NAME;
    }

    void show_interface() {
        const std::string reply =
            client.call("org.freedesktop.DBus.Introspectable", "Introspect", "()");
        g_autofree gchar *served = g_strcompress(reply.c_str());
        EXPECT_EQ(members(served), members(file_text(std::string(std::getenv("SOURCE_ROOT")) +
                                                     "/src/dbus/" DUSKVALE_BUS_NAME ".xml")));
        for (const std::string &member : members(served)) {
            answers += member + "\n";
        }
    }

    const std::map<std::string, const DuskvaleDBusAgents *> agents = {
        {"recording", &recording}, {"none", &none}, {"null", nullptr}};
    static constexpr DuskvaleDBusAgents none{};
    Client stranger{bus(), nobody};
    Client watcher{bus(), nobody, DUSKVALE_BUS_NAME, DUSKVALE_BUS_PATH, adm};
    bool exported = false;
    Capture log;
    std::string during; /* what is read while a new master is announced */
    std::string destination = DUSKVALE_BUS_NAME;
    std::string answers;
    Words w;

    const Commands commands = {
        {"load", [this] { load(); }},          /* node id: without a bus */
        {"start", [this] { start_object(); }}, /* node id, agents */
        {"agents", [this] { agent_result = std::stoi(w[1]); }},
        {"debug", [this] { duskvale_debug_set_level(w[1] == "on" ? LOG_DEBUG : LOG_INFO); }},
        {"held", [this] { answers += held(); }},
        {"interface", [this] { show_interface(); }},
        {"name", [this] { address(w[1]); }}, /* "unique", or the well-known one */
        /* Interface or "-", member, arguments. */
        {"call", [this] { call(client); }},
        {"stranger", [this] { call(stranger); }},
        {"watcher", [this] { call(watcher); }},
        {"stranger-name",
         [this] {
             answers +=
                 stranger.driver("RequestName", "('" DUSKVALE_BUS_NAME "', uint32 0)") + "\n";
         }},
        {"method",
         [this] {
             answers += client.method(w[1].c_str(), w.size() > 2 ? rest(w, 2) : "()") + "\n";
         }},
        {"get", [this] { answers += client.get(w[1]) + "\n"; }},
        {"set", [this] { answers += client.set(w[1], rest(w, 2)) + "\n"; }},
        {"all", [this] { answers += client.properties("GetAll") + "\n"; }},
        {"cat", [this] { answers += quoted(file_text(settings / w[1])); }},
        {"write", [this] { std::ofstream(settings / w[1]) << rest(w, 2); }},
        {"mkdir", [this] { std::filesystem::create_directory(settings / w[1]); }},
        {"rm", [this] { std::filesystem::remove_all(settings / (w.size() > 1 ? w[1] : "")); }},
        {"new-master", [this] { duskvale_notify_new_master(dbus, number(w[1])); }},
        {"frozen",
         [this] {
             duskvale_notify_frozen_master(dbus, number(w[1]),
                                           w.size() > 2 ? rest(w, 2).c_str() : nullptr);
         }},
        {"frozen-again",
         [this] {
             duskvale_notify_frozen_master(dbus, number(w[1]),
                                           duskvale_get_frozen_master_reason(dbus));
         }},
        {"joined", [this] { duskvale_notify_joined(dbus, number(w[1]), number(w[2])); }},
        {"left", [this] { duskvale_notify_left(dbus, number(w[1]), number(w[2])); }},
        {"keep-alive", [this] { duskvale_notify_keep_alive(dbus, number(w[1])); }},
        {"text", [this] { duskvale_notify_got_message(dbus, w[1].c_str()); }},
        {"hotplug",
         [this] {
             duskvale_notify_lumacrate_hotplug(dbus, number(w[1]), std::stoi(w[2]), std::stoi(w[3]),
                                               w[4].c_str(), w[5].c_str(), w[6].c_str());
         }},
        {"step-begin", [this] { duskvale_notify_runstep_begin(dbus, w[1].c_str(), w[2].c_str()); }},
        {"step-end",
         [this] {
             duskvale_notify_runstep_end(dbus, w[1].c_str(), w[2].c_str(), std::stoi(w[3]));
         }},
        {"steps-done", [this] { duskvale_notify_runsteps_done(dbus, number(w[1])); }},
    };
};

} // namespace

TEST(DBus, AnswersAsItDid) {
    for (const char *script :
         {"interface", "properties", "methods", "events", "policy", "settings"}) {
        expect_script<Session>(script);
    }
}
