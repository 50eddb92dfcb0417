/*
 * The scripts in scripts/: each line that begins with "$" is carried out, and what comes of it is
 * held against what stands below it. The table of commands says what they do.
 */
#include "cluster.h"
#include "support/golden.h"

namespace sim {
namespace {

using Words = std::vector<std::string>;

Words split(const std::string &text, const std::string &separator) {
    Words parts;
    for (size_t begin = 0; begin <= text.size();) {
        const size_t end = std::min(text.find(separator, begin), text.size());
        parts.push_back(text.substr(begin, end - begin));
        begin = end + separator.size();
    }
    return parts;
}

uint32_t number(const std::string &word) {
    return static_cast<uint32_t>(std::stoul(word));
}

/* The words from `first` on as one text. */
std::string rest(const Words &given, size_t first) {
    std::string text;
    for (size_t i = first; i < given.size(); ++i) {
        text += (i == first ? "" : " ") + given[i];
    }
    return text;
}

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
std::string outcome(Cluster &c) {
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

class Script {
public:
    /* The same text with what came of each line. */
    static std::string played(const std::string &text) {
        Script script;
        std::string result;
        for (const std::string &line : split(text, "\n")) {
            if (line.empty() || line[0] == '#') {
                result += line + "\n";
            } else if (line.starts_with("$ ")) {
                result += line + "\n" + script.play(line.substr(2));
            }
        }
        result.pop_back();
        return result;
    }

private:
    /* Commands, with ", " between them. */
    std::string play(const std::string &line) {
        shown.clear();
        bool refused = false;
        for (const std::string &command : split(line, ", ")) {
            given = split(command, " ");
            key = given.size() > 1 ? static_cast<uint32_t>(atoi(given[1].c_str())) : 0;
            on = given.back() != "off";
            if (given[0] == "nodes") {
                c.emplace(key);
            }
            c->accepted = true;
            commands.at(given[0])();
            refused = refused || !c->accepted;
        }
        const std::string masters = c->masters();
        return shown + "masters " + (masters.empty() ? "none" : masters) +
               listed(*c, ", frozen to", [](const Node &n) { return n.bus.frozen_node; }) +
               listed(*c, ", aborts", [](const Node &n) { return n.aborts; }) +
               (refused ? ", refused\n" : "\n");
    }
    Node &node() { return (*c)[key]; }

    std::optional<Cluster> c;
    Words given; /* the command, the node that it is about, whether it ends with "off" */
    uint32_t key = 0;
    bool on = true;
    std::string shown;

    const std::map<std::string, std::function<void()>> commands = {
        {"nodes", [] {}}, /* a cluster of so many, none of them running */
        {"boot", [this] { c->boot(); }},
        {"start", [this] { c->start(key); }},
        {"stop", [this] { c->stop(key); }},
        {"crash", [this] { c->crash(key); }},
        {"restart", [this] { c->restart_after = key; }}, /* what aborts, after so many ms */
        {"pause", [this] { c->pause(key, on); }},
        {"hold", [this] { c->hold(key, on); }},
        {"refuse", [this] { c->refuse(key, on ? given[2][0] : '\0'); }},
        {"cut", [this] { c->cut(islands(given[1])); }},
        {"heal", [this] { c->heal(); }},
        {"wait", [this] { c->run(key); }},
        {"settle", [this] { c->settle(); }}, /* at this instant */

        {"take-over", [this] { c->take_over(key); }},
        {"give-back", [this] { c->give_back(key); }},
        {"freeze", [this] { c->freeze(key, rest(given, 2).c_str()); }},
        {"lift", [this] { c->lift(key, rest(given, 2).c_str()); }},
        {"prefer", [this] { c->prefer(key, on); }},
        {"keep-alive", [this] { c->keep_alive(key); }},
        {"text", [this] { c->send_text(key, rest(given, 2).c_str()); }},
        {"plug", [this] { plug(given[2], given[3]); }}, /* hardware id, location */
        {"unplug",
         [this] {
             node().devices.pop_back();
             c->hotplug(key, false, "/sys/x");
         }},

        /* From a stranger, node 9: a message of a type, with numbers and a text; or any bytes. */
        {"send", [this] { c->inject(message(given)); }},
        {"bytes", [this] { c->inject(rest(given, 1)); }},
        /* A second daemon on the node, which does not get the bus name. */
        {"second",
         [this] {
             c->nodes[9].id = key;
             c->nodes[9].cluster = &*c;
             c->nodes[9].fails = "duskvale_dbus_register";
             c->start(9);
         }},

        /* A file that the node's daemon reads when it starts. */
        {"preferred", [this] { node().bus.preferred = on; }},
        {"frozen",
         [this] {
             node().bus.frozen_node = number(given[2]);
             node().bus.frozen_reason = rest(given, 3);
         }},
        /* A run step: its name, how many ms it takes, its wait status. */
        {"step",
         [this] {
             node().steps.push_back({given[2], number(given[3]), std::stoi(given[4])});
         }},

        {"debug", [this] { debug_lines = on; }},
        {"forget", [this] { outcome(*c); }},
        {"show", [this] { shown += outcome(*c); }},
        {"devices", [this] { shown += std::to_string(c->read(key).devices) + " devices\n"; }},
    };

    void plug(const std::string &hardware_id, const std::string &location) {
        DuskvaleLumacrateInfo info{};
        g_strlcpy(info.hardware_id, hardware_id.c_str(), sizeof info.hardware_id);
        g_strlcpy(info.location, location.c_str(), sizeof info.location);
        node().devices.push_back(info);
        c->hotplug(key, true, "/sys/x");
    }
};

TEST(Scripts, EndAsTheyDid) {
    for (const auto &script : std::filesystem::directory_iterator(GOLDEN)) {
        expect_golden(script.path().filename(), Script::played(file_text(script.path())));
    }
}

} // namespace
} // namespace sim
