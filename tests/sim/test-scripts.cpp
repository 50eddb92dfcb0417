/*
 * The scripts in scripts/: each line that begins with "$" is carried out, and what comes of it is
 * compared with what is below it. The table of commands says what they do.
 */
#include "cluster.h"
#include "support/script.h"

namespace sim {
namespace {

/* The message of "send P 7 0 9": of this type, with these words, and then a text if there is one.
 */
std::string message(const Words &given) {
    std::vector<uint32_t> payload;
    size_t i = 2;
    for (; i < given.size() && given[i].find_first_not_of("0123456789") == std::string::npos; ++i) {
        payload.push_back(number(given[i]));
    }
    return words(given[1][0], payload) + (i < given.size() ? rest(given, i) + '\0' : "");
}

std::vector<std::set<uint32_t>> islands(const std::string &text) {
    std::vector<std::set<uint32_t>> result;
    for (const std::string &island : split(text, "|")) {
        auto &keys = result.emplace_back();
        for (const std::string &key : split(island, ",")) {
            keys.insert(number(key));
        }
    }
    return result;
}

/* For each running node, in their order; empty where all are zero. */
std::string listed(const Cluster &c, const char *title, uint32_t (*value)(const Node &)) {
    std::string text;
    bool any = false;
    for (const auto &[key, node] : c.nodes) {
        any = any || value(node) != 0;
        text += " " + std::to_string(value(node));
    }
    return any ? title + text : "";
}

/* Everything since the last time: the messages that were ordered, and the log of each node. */
std::string history(Cluster &c) {
    std::string text = "messages:";
    for (const auto &[type, count] : std::exchange(c.sent, {})) {
        text += " " + std::to_string(count) + " " + type;
    }
    std::map<std::string, std::string> nodes; /* by log */
    for (auto &[key, node] : c.nodes) {
        nodes[node.log] += " " + std::to_string(key);
    }
    for (auto &[key, node] : c.nodes) {
        const std::string log = std::exchange(node.log, {});
        const std::string who = std::exchange(nodes[log], {});
        text += log.empty() || who.empty() ? ""
                                           : "\nnode" + who + ":\n" + log.substr(0, log.size() - 1);
    }
    return text + "\n";
}

struct Session {
    /* What "show" gave, and where the cluster is now. */
    std::string outcome() {
        const std::string masters = c->masters();
        return std::exchange(shown, {}) + "masters " + (masters.empty() ? "none" : masters) +
               listed(*c, ", frozen to", [](const Node &n) { return n.bus.frozen_node; }) +
               listed(*c, ", aborts", [](const Node &n) { return n.aborts; }) +
               (std::exchange(c->accepted, true) ? "\n" : ", refused\n");
    }
    /* The node or the number that the command is about, and whether it ends with "off". */
    uint32_t key() const { return number(w.at(1)); }
    bool on() const { return w.back() != "off"; }
    Node &node() { return (*c)[key()]; }

    std::optional<Cluster> c;
    Words w;
    std::string shown;

    const Commands commands = {
        {"nodes", [this] { c.emplace(key()); }}, /* a cluster of so many, none of them running */
        {"boot", [this] { c->boot(); }},
        {"start", [this] { c->start(key()); }},
        {"stop", [this] { c->stop(key()); }},
        {"crash", [this] { c->crash(key()); }},
        {"restart", [this] { c->restart_after = key(); }}, /* what aborts, after so many ms */
        {"pause", [this] { c->pause(key(), on()); }},
        {"hold", [this] { c->hold(key(), on()); }},
        {"refuse", [this] { c->refuse(key(), on() ? w[2][0] : '\0'); }},
        {"cut", [this] { c->cut(islands(w[1])); }},
        {"heal", [this] { c->heal(); }},
        {"wait", [this] { c->run(key()); }},
        {"settle", [this] { c->settle(); }}, /* at this instant */

        {"take-over", [this] { c->take_over(key()); }},
        {"give-back", [this] { c->give_back(key()); }},
        {"freeze", [this] { c->freeze(key(), rest(w, 2).c_str()); }},
        {"lift", [this] { c->lift(key(), rest(w, 2).c_str()); }},
        {"prefer", [this] { c->prefer(key(), on()); }},
        {"keep-alive", [this] { c->call(key(), &DuskvaleDBusAgents::keep_alive, key()); }},
        {"text", [this] { c->call(key(), &DuskvaleDBusAgents::text_message, rest(w, 2).c_str()); }},
        {"plug", [this] { plug(w[2], w[3]); }}, /* hardware id, location */
        {"unplug",
         [this] {
             node().devices.pop_back();
             hotplug(false);
         }},

        /* From a stranger, node 9: a message of a type, with numbers and a text; or any bytes. */
        {"send", [this] { c->inject(message(w)); }},
        {"bytes", [this] { c->inject(rest(w, 1)); }},
        /* A second daemon on the node, which does not get the bus name. */
        {"second",
         [this] {
             c->nodes[9].id = key();
             c->nodes[9].cluster = &*c;
             c->nodes[9].fails = "duskvale_dbus_register";
             c->start(9);
         }},

        /* A file that the node's daemon reads when it starts. */
        {"preferred", [this] { node().bus.preferred = on(); }},
        {"frozen",
         [this] {
             node().bus.frozen_node = number(w[2]);
             node().bus.frozen_reason = rest(w, 3);
         }},
        /* A run step: its name, how many ms it takes, its wait status. */
        {"step",
         [this] {
             node().steps.push_back({w[2], number(w[3]), std::stoi(w[4])});
         }},

        {"debug", [this] { debug_lines = on(); }},
        {"forget", [this] { history(*c); }},
        {"show", [this] { shown += history(*c); }},
        {"devices", [this] { shown += std::to_string(c->read(key()).devices) + " devices\n"; }},
    };

    void plug(const std::string &hardware_id, const std::string &location) {
        DuskvaleLumacrateInfo info{};
        g_strlcpy(info.hardware_id, hardware_id.c_str(), sizeof info.hardware_id);
        g_strlcpy(info.location, location.c_str(), sizeof info.location);
        node().devices.push_back(info);
        hotplug(true);
    }
    void hotplug(gboolean added) {
        c->call(key(), &DuskvaleDBusAgents::lumacrate_hotplug, added, "/sys/x", "?", "?");
    }
};

TEST(Scripts, EndAsTheyDid) {
    bool any = false;
    for (const auto &script : std::filesystem::directory_iterator(GOLDEN)) {
        expect_script<Session>(script.path().filename());
        any = true;
    }
    EXPECT_TRUE(any);
}

} // namespace
} // namespace sim
