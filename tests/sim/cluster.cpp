#include "oracle.h"

#include <algorithm>
#include <cstring>

namespace sim {

Node *current = nullptr;
bool trace = false;

/* Thrown in place of abort(3): the node is dead, the test goes on. */
struct Aborted {};

uint32_t u32(const std::string &message, size_t offset) {
    uint32_t value = 0;
    std::memcpy(&value, message.substr(offset, sizeof value).data(), sizeof value);
    return value;
}

std::string words(char type, const std::vector<uint32_t> &payload) {
    std::string message{type, 0, 0, 0};
    for (const uint32_t word : payload) {
        message.append(reinterpret_cast<const char *>(&word), sizeof word);
    }
    return message;
}

Cluster::Cluster(unsigned count) {
    for (uint32_t id = 1; id <= count; ++id) {
        nodes[id].id = id;
        nodes[id].cluster = this;
    }
}

Cluster::~Cluster() {
    for (auto &[key, node] : nodes) {
        end(node);
    }
}

guint Node::add_timer(guint interval, std::function<gboolean()> call) {
    static guint last_id = 0;
    timers[++last_id] = {cluster->now + interval, interval, std::move(call)};
    return last_id;
}

void Cluster::as(Node &node, const std::function<void()> &call) {
    Node *before = std::exchange(current, &node);
    try {
        call();
        current = before;
    } catch (const Aborted &) {
        current = before;
        ++node.aborts;
        node.restart_at = restart_after == 0 ? 0 : now + restart_after;
        flush(node); /* corosync has taken these and outlives the daemon */
        end(node);
    }
}

Cluster &Cluster::start(uint32_t key) {
    Node &node = nodes.at(key);
    node.restart_at = 0;
    node.bus = {.interface_version = "1.0",
                .local_node = node.id,
                .frozen_node = node.bus.frozen_node,
                .frozen_reason = node.bus.frozen_reason,
                .preferred = node.bus.preferred};
    if (oracle != nullptr) {
        oracle->started(node);
    }
    as(node, [&] { node.daemon = duskvale_corosync_new(nullptr); });
    if (node.daemon == nullptr) {
        change([&] { node.member = false; });
        node.inbox.clear();
    }
    return *this;
}

Cluster &Cluster::boot() {
    start(1).run(5000);
    for (auto &[key, node] : nodes) {
        if (key != 1) {
            start(key);
        }
    }
    run(2000);
    for (auto &[key, node] : nodes) {
        node.log.clear();
    }
    sent.clear();
    return *this;
}

/* Everything of the process goes. The coordinator does not release its runner, so it is done here.
 */
void Cluster::end(Node &node) {
    if (node.daemon == nullptr) {
        return;
    }
    change([&] { node.member = false; });
    as(node, [&] { g_clear_object(&node.daemon); });
    g_clear_object(&node.runner);
    node.running = false;
    node.pending.reset();
    node.timers.clear();
    node.inbox.clear();
    node.outbox.clear();
    node.paused = node.held = false;
}

Cluster &Cluster::stop(uint32_t key) {
    flush(nodes.at(key));
    return crash(key);
}

Cluster &Cluster::crash(uint32_t key) {
    end(nodes.at(key));
    return *this;
}

std::vector<uint32_t> Cluster::reached(const Node &node) const {
    std::vector<uint32_t> keys;
    for (const auto &[key, other] : nodes) {
        if (other.member && other.island == node.island) {
            keys.push_back(key);
        }
    }
    return keys;
}

/* Gives every member what changed for it. A process that joins hears only of itself. */
void Cluster::change(const std::function<void()> &apply) {
    std::map<uint32_t, std::vector<uint32_t>> before;
    for (const auto &[key, node] : nodes) {
        if (node.member) {
            before[key] = reached(node);
        }
    }
    apply();
    ++events;
    const auto list = [this](std::vector<uint32_t> &ids, const auto &these, const auto &but_not) {
        std::set_difference(these.begin(), these.end(), but_not.begin(), but_not.end(),
                            std::back_inserter(ids));
        std::for_each(ids.begin(), ids.end(), [this](uint32_t &key) { key = nodes.at(key).id; });
    };
    for (auto &[key, node] : nodes) {
        if (!node.member) {
            continue;
        }
        Event event{.number = events, .members = reached(node)};
        const auto known = before.find(key);
        if (known == before.end()) {
            event.joined = {node.id};
        } else {
            list(event.left, known->second, event.members);
            list(event.joined, event.members, known->second);
            event.merge = std::any_of(event.joined.begin(), event.joined.end(),
                                      [&](uint32_t other) { return before.count(other) != 0; });
        }
        if (!event.left.empty() || !event.joined.empty()) {
            node.inbox.push_back(std::make_shared<const Event>(std::move(event)));
        }
    }
}

Cluster &Cluster::cut(const std::vector<std::set<uint32_t>> &islands) {
    change([&] {
        for (auto &[key, node] : nodes) {
            const auto holds = [key = key](const auto &island) { return island.count(key) != 0; };
            node.island = static_cast<int>(std::find_if(islands.begin(), islands.end(), holds) -
                                           islands.begin());
        }
    });
    return *this;
}

Cluster &Cluster::refuse(uint32_t key, char type) {
    nodes.at(key).refuses = [type](char sending) { return sending == type; };
    return *this;
}

Cluster &Cluster::ask(uint32_t key, bool unless_frozen,
                      const std::function<void(Node &)> &request) {
    Node &node = nodes.at(key);
    accepted = node.daemon != nullptr && node.bus.members >= 2 &&
               (node.bus.frozen_node == 0 || !unless_frozen);
    if (accepted) {
        as(node, [&] { request(node); });
    }
    return *this;
}

Cluster &Cluster::set_freeze(uint32_t key, bool wanted, const char *reason) {
    return ask(key, false, [wanted, reason](Node &node) {
        const uint32_t master = wanted ? node.bus.master_node : 0;
        node.requests->frozen_master_was_set(node.user_data, master, reason);
    });
}

Cluster &Cluster::prefer(uint32_t key, bool preferred) {
    nodes.at(key).bus.preferred = preferred;
    return call(key, &DuskvaleDBusAgents::preferred_master_was_set, gboolean{preferred});
}

client::Snapshot Cluster::read(uint32_t key) {
    Node &node = nodes.at(key);
    as(node, [&] { node.bus.devices = node.requests->lumacrates_count(node.user_data); });
    return node.bus;
}

Cluster &Cluster::inject(const std::string &message) {
    const auto event =
        std::make_shared<const Event>(Event{.number = ++events, .sender = 9, .message = message});
    for (const uint32_t key : reached(nodes.at(1))) {
        nodes.at(key).inbox.push_back(event);
    }
    return *this;
}

bool Cluster::order(Node &node) {
    if (node.outbox.empty()) {
        return false;
    }
    const auto event = std::make_shared<Event>(std::move(node.outbox.front()));
    node.outbox.pop_front();
    event->number = ++events;
    ++sent[(*event->message)[0]];
    for (auto &[key, other] : nodes) {
        if (other.member && other.island == node.island) {
            other.inbox.push_back(event);
        }
    }
    return true;
}

static void handle(Node &node, const Event &event) {
    node.handling = event.number;
    for (const uint32_t id : event.left) {
        node.group->left(node.user_data, id, event.members.size());
    }
    for (const uint32_t id : event.joined) {
        node.group->joined(node.user_data, id, event.members.size());
    }
    if (event.message) {
        node.group->got_message(node.user_data, event.sender, event.message->data(),
                                event.message->size());
    }
}

bool Cluster::turn(Node &node) {
    if (node.daemon == nullptr || node.paused) {
        return false;
    }
    bool worked = !node.inbox.empty();
    if (worked) {
        const auto event = std::move(node.inbox.front());
        node.inbox.pop_front();
        if (oracle != nullptr) {
            oracle->delivered(node, *event);
        }
        as(node, [&] { handle(node, *event); });
        node.handling = 0;
    }
    const auto is_due = [this](const auto &entry) { return entry.second.due <= now; };
    const auto due = [&] { return std::find_if(node.timers.begin(), node.timers.end(), is_due); };
    for (auto it = due(); it != node.timers.end(); it = due()) {
        const auto [id, timer] = *it;
        it->second.due = now + timer.interval;
        gboolean again = G_SOURCE_REMOVE;
        as(node, [&again, &call = timer.call] { again = call(); });
        if (again == G_SOURCE_REMOVE) {
            node.timers.erase(id);
        }
        worked = true;
    }
    return worked;
}

Cluster &Cluster::settle() {
    const auto everybody = [this] {
        bool worked = false;
        for (auto &[key, node] : nodes) {
            while (turn(node)) {
                worked = true;
            }
        }
        return worked;
    };
    for (bool busy = true; busy;) {
        busy = everybody();
        std::map<uint32_t, size_t> round;
        for (const auto &[key, node] : nodes) {
            round[key] = node.held ? 0 : node.outbox.size();
        }
        for (auto &[key, count] : round) {
            for (; count > 0 && order(nodes.at(key)); --count) {
                everybody();
                busy = true;
            }
        }
    }
    return *this;
}

Cluster &Cluster::run(uint64_t ms) {
    const uint64_t limit = now + ms;
    for (settle(); next_due() <= limit; settle()) {
        now = std::max(now, next_due());
        restart_due();
    }
    now = limit;
    return *this;
}

uint64_t Cluster::next_due() const {
    uint64_t due = UINT64_MAX;
    for (const auto &[key, node] : nodes) {
        due = node.restart_at != 0 ? std::min(due, node.restart_at) : due;
        for (const auto &[id, timer] : node.timers) {
            due = node.paused ? due : std::min(due, timer.due);
        }
    }
    return due;
}

void Cluster::restart_due() {
    for (auto &[key, node] : nodes) {
        if (node.restart_at != 0 && node.restart_at <= now) {
            start(key);
        }
    }
}

bool Cluster::quiet() const {
    return std::all_of(nodes.begin(), nodes.end(), [](const auto &entry) {
        const Node &node = entry.second;
        /* A running daemon always has its sync timer; an election adds one. */
        return node.restart_at == 0 && node.inbox.empty() && node.outbox.empty() &&
               node.timers.size() == (node.daemon != nullptr ? 1 : 0);
    });
}

std::string Cluster::masters() const {
    std::string result;
    for (const auto &[key, node] : nodes) {
        if (node.daemon != nullptr) {
            result += result.empty() ? "" : " ";
            const client::NodeId master = node.bus.master_node;
            result += master != 0 ? std::to_string(master) : "-";
        }
    }
    return result;
}

} // namespace sim

/* Put in the place of abort() by the linker. */
extern "C" [[noreturn]] void __real_abort();
extern "C" [[noreturn]] void __wrap_abort();
void __wrap_abort() {
    if (sim::current == nullptr) {
        __real_abort();
    }
    throw sim::Aborted{};
}
