#include "keepers.h"

#include "client/overloaded.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>

namespace sim {

using keeper::Time;

static const std::string step = "/usr/share/duskvale/run.d/10-service.run";

Kept::Kept(unsigned count, uint64_t seed, unsigned keepers)
    : Cluster(count), random(seed), shuffled(seed != 0) {
    restart_after = 200;
    for (auto &[key, node] : nodes) {
        machines[key];
        node.runs = [this, key = key](bool start) {
            Machine &machine = machines[key];
            if (machine.step_ends != UINT64_MAX) {
                machine.pending = start;
            } else {
                run_steps(key, start);
            }
        };
        if (key <= keepers) {
            start_keeper(key);
        }
    }
    watch_quorum();
}

Kept &Kept::start_all() {
    for (auto &[key, node] : nodes) {
        start(key);
    }
    return *this;
}

void Kept::give(uint32_t key, keeper::Input input) {
    Machine &machine = machines[key];
    const uint64_t after = machine.inputs.empty() ? now : machine.inputs.back().first;
    const uint64_t late = shuffled && pick(3) == 0 ? pick(8) : 0;
    machine.inputs.emplace_back(std::max(after, now + late), std::move(input));
}

Kept &Kept::start_keeper(uint32_t key) {
    Machine &machine = machines[key];
    hear(key);
    machine.inputs.clear();
    keeper::Config config;
    config.boot = "boot" + std::to_string(++calls);
    machine.keeper = std::make_unique<keeper::Keeper>(config);
    keeper::CorosyncRead corosync;
    corosync.local = key;
    corosync.votequorum = true;
    corosync.votes = static_cast<unsigned>(nodes.size());
    for (const auto &[id, node] : nodes) {
        corosync.nodes.push_back({id, ""});
    }
    give(key, keeper::DiskRead{machine.disk});
    give(key, corosync);
    give(key, machine.quorum);
    machine.daemon = nullptr;
    machine.looked = false;
    return *this;
}

Kept &Kept::stop_keeper(uint32_t key) {
    machines[key].keeper.reset();
    machines[key].inputs.clear();
    return *this;
}

/* The daemon is gone and its unit has run the steps with stop. */
Kept &Kept::end_daemon(uint32_t key, uint64_t start_again_after) {
    Machine &machine = machines[key];
    hear(key);
    stop(key);
    nodes[key].restart_at = now + std::max<uint64_t>(start_again_after, 1);
    machine.serves = false;
    machine.step_ends = UINT64_MAX;
    machine.pending.reset();
    return *this;
}

Kept &Kept::reboot(uint32_t key, uint64_t ms) {
    stop_keeper(key);
    machines[key].down = true;
    return end_daemon(key, ms);
}

Kept &Kept::systemctl_stop(uint32_t key, uint64_t start_again_after) {
    const uint64_t call = machines[key].keeper ? ask(key, keeper::Asked::HandOver{}) : 0;
    stops[key] = {call, start_again_after, now + (call != 0 ? 2000 : 0)};
    return *this;
}

void Kept::run_steps(uint32_t key, bool start) {
    Machine &machine = machines[key];
    machine.step_starts = start;
    machine.step_ends = now + machine.step_ms;
    machine.serves = machine.serves && start;
    hear(key);
    give(key, keeper::Announced{client::StepBegin{step, start ? "start" : "stop"}});
}

/* The daemon's signals, and its coming and going. */
void Kept::hear(uint32_t key) {
    Node &node = nodes[key];
    Machine &machine = machines[key];
    for (const std::string &text : node.take_signals()) {
        unsigned id = 0, count = 0;
        const char *line = text.c_str();
        std::optional<client::Announcement> heard;
        if (sscanf(line, "NewMaster %u", &id) == 1) {
            heard = client::NewMaster{id};
        } else if (sscanf(line, "Joined %u, now %u", &id, &count) == 2) {
            heard = client::Joined{id, count};
        } else if (sscanf(line, "Left %u, now %u", &id, &count) == 2) {
            heard = client::Left{id, count};
        } else if (sscanf(line, "KeepAlive %u", &id) == 1) {
            heard = client::KeepAlive{id};
        } else if (sscanf(line, "RunstepsDone %u", &count) == 1) {
            heard = client::StepsDone{count};
        } else if (sscanf(line, "FrozenMaster %u", &id) == 1) {
            const size_t quote = text.find('\'');
            heard = client::FrozenMaster{id, text.substr(quote + 1, text.size() - quote - 2)};
        } else if (text.starts_with("GotMessage '")) {
            heard = client::Text{text.substr(12, text.size() - 13)};
        }
        if (heard) {
            give(key, keeper::Announced{*heard});
        }
    }
    (void)machine;
}

void Kept::watch_unit(uint32_t key) {
    Machine &machine = machines[key];
    const Node &node = nodes[key];
    const bool beside = !std::exchange(machine.looked, true);
    if (machine.daemon == node.daemon) {
        return;
    }
    const bool seen = machine.daemon != nullptr;
    machine.daemon = node.daemon;
    if (seen) {
        machine.serves = false;
        machine.step_ends = UINT64_MAX;
        machine.pending.reset();
        keeper::UnitChanged unit;
        unit.stop_steps = keeper::UnitChanged::StopSteps::done;
        give(key, unit);
        give(key, keeper::DaemonVanished{});
    }
    if (node.daemon != nullptr) {
        keeper::UnitChanged unit;
        unit.running = true;
        unit.main_pid = ++machine.process;
        give(key, unit);
        give(key, keeper::DaemonAppeared{beside});

    }
}

void Kept::watch_quorum() {
    for (auto &[key, machine] : machines) {
        keeper::QuorumChanged quorum;
        quorum.connected = true;
        for (const auto &[id, other] : machines) {
            if (!other.down && nodes[id].island == nodes[key].island) {
                quorum.ring.push_back(id);
            }
        }
        quorum.quorate = 2 * quorum.ring.size() > machines.size();
        if (quorum.ring != machine.quorum.ring) {
            machine.quorum = quorum;
            give(key, quorum);
        }
    }
}

/* What the machine does by itself. */
bool Kept::live(uint32_t key) {
    Machine &machine = machines[key];
    Node &node = nodes[key];
    const auto stopping = stops.find(key);
    if (stopping != stops.end() &&
        (now >= stopping->second.deadline || machine.answers.contains(stopping->second.call))) {
        const uint64_t again = stopping->second.start_again_after;
        stops.erase(stopping);
        end_daemon(key, again);
        return true;
    }
    if (node.restart_at != 0 && node.restart_at <= now) {
        if (machine.down) {
            machine.down = false;
            watch_quorum();
            start_keeper(key);
        }
        if (!machine.quorum.quorate) {
            node.restart_at = now + 200; /* the unit waits for quorum */
            return false;
        }
        start(key);
        return true;
    }
    if (now >= machine.dies_at) {
        machine.dies_at = UINT64_MAX;
        machine.serves = false;
    }
    if (machine.step_ends <= now && node.daemon != nullptr) {
        machine.step_ends = UINT64_MAX;
        const bool failed = machine.step_starts && machine.start_fails;
        machine.serves = machine.step_starts && !failed;
        machine.dies_at = machine.serves && machine.dies_after != 0 ? now + machine.dies_after
                                                                    : UINT64_MAX;
        hear(key);
        give(key, keeper::Announced{client::StepEnd{
                      step, machine.step_starts ? "start" : "stop", failed ? 256 : 0}});
        as(node, [&] { node.steps->steps_done(node.user_data, failed ? 1 : 0); });
        hear(key);
        if (const auto pending = std::exchange(machine.pending, std::nullopt)) {
            run_steps(key, *pending);
        }
        return true;
    }
    return false;
}

bool Kept::keep(uint32_t key) {
    Machine &machine = machines[key];
    hear(key);
    watch_unit(key);
    if (!machine.keeper) {
        machine.inputs.clear();
        return false;
    }
    keeper::Input input = keeper::Tick{};
    if (!machine.inputs.empty() && machine.inputs.front().first <= now) {
        input = std::move(machine.inputs.front().second);
        machine.inputs.pop_front();
    } else if (const auto wake = machine.keeper->next_wake(); !wake || *wake > Time(now)) {
        return false;
    }
    for (const keeper::Action &action : machine.keeper->handle(input, Time(now))) {
        carry_out(key, action);
    }
    return true;
}

void Kept::carry_out(uint32_t key, const keeper::Action &action) {
    Node &node = nodes[key];
    Machine &machine = machines[key];
    const auto request = [&](const auto &call) {
        if (node.daemon != nullptr) {
            as(node, [&] { call(node.requests); });
        }
    };
    std::visit(
        client::Overloaded{
            [&](const keeper::SendText &send) {
                request([&](auto *to) { to->text_message(node.user_data, send.text.c_str()); });
            },
            [&](const keeper::SendKeepAlive &) {
                request([&](auto *to) { to->keep_alive(node.user_data, node.id); });
            },
            [&](const keeper::PingBus &) { give(key, keeper::BusAnswered{}); },
            [&](const keeper::CallTakeOver &) {
                for (const auto &[when, who] : take_overs) {
                    if (when + 1000 > now && who != key && nodes[who].island == node.island &&
                        nodes[who].master != who && nodes[who].daemon != nullptr) {
                        faults.push_back("two moves at a time");
                    }
                }
                take_overs.emplace_back(now, key);
                take_over(key);
                hear(key);
                give(key, keeper::TakeOverAnswered{accepted});
            },
            [&](const keeper::WritePreferred &write) { prefer(key, write.on); },
            [&](const keeper::ReadSnapshot &) {
                if (node.daemon != nullptr) {
                    hear(key);
                    client::Snapshot now_is;
                    now_is.local_node = node.id;
                    now_is.master_node = node.master;
                    now_is.is_master = node.master == node.id;
                    now_is.frozen_node = node.frozen;
                    now_is.frozen_reason = node.reason.value_or("");
                    now_is.members = static_cast<int>(node.node_count);
                    now_is.preferred = node.preferred;
                    now_is.in_transition = node.in_transition;
                    give(key, keeper::SnapshotRead{now_is});
                }
            },
            [&](const keeper::ReadRunDirectory &) { give(key, keeper::RunDirectoryRead{{step}}); },
            [&](const keeper::RunWatchPrograms &) {
                keeper::WatchRan::Result result;
                result.program = "service.watch";
                result.ok = machine.serves;
                result.reason = "status 1";
                give(key, keeper::WatchRan{{result}});
            },
            [&](const keeper::KillDaemon &kill) {
                if (kill.main_pid == machine.process && node.daemon != nullptr) {
                    end_daemon(key, 200);
                }
            },
            [&](const keeper::Store &store) { machine.disk = store.stored; },
            [&](const keeper::Answer &answer) { machine.answers[answer.id] = answer; },
            [&](const keeper::Log &line) {
                machine.log += line.text + "\n";
                if (trace) {
                    printf("%8" PRIu64 " keeper %u: %s\n", now, key, line.text.c_str());
                }
            },
        },
        action);
}

uint64_t Kept::next(uint32_t key) const {
    const Machine &machine = machines.at(key);
    uint64_t due = std::min(machine.step_ends, machine.dies_at);
    if (const auto stop = stops.find(key); stop != stops.end()) {
        due = std::min(due, stop->second.deadline);
    }
    if (machine.keeper) {
        due = machine.inputs.empty() ? due : std::min(due, machine.inputs.front().first);
        if (const auto wake = machine.keeper->next_wake()) {
            due = std::min(due, static_cast<uint64_t>(std::max<int64_t>(wake->count(), 0)));
        }
    }
    return due;
}

Kept &Kept::run(uint64_t ms) {
    const uint64_t end = now + ms;
    for (;;) {
        bool worked = false;
        watch_quorum();
        std::vector<uint32_t> keys;
        for (const auto &[key, node] : nodes) {
            keys.push_back(key);
        }
        if (shuffled) {
            std::shuffle(keys.begin(), keys.end(), random);
            for (const uint32_t key : keys) {
                worked = (pick(2) == 0 && order(nodes[key])) || worked;
                worked = (pick(2) == 0 && turn(nodes[key])) || worked;
            }
        } else {
            settle();
        }
        for (const uint32_t key : keys) {
            worked = live(key) || worked;
            worked = keep(key) || worked;
        }
        const bool more = std::ranges::any_of(nodes, [](const auto &entry) {
            return !entry.second.outbox.empty() ||
                   (!entry.second.inbox.empty() && !entry.second.paused);
        });
        if (worked || more) {
            now += shuffled && pick(20) == 0 ? 1U : 0U;
            continue;
        }
        uint64_t due = next_due();
        for (const uint32_t key : keys) {
            due = std::min(due, next(key));
        }
        if (due > end) {
            now = std::max(now, end);
            return *this;
        }
        now = std::max(now, due);
    }
}

std::string Kept::service() const {
    std::string text;
    for (const auto &[key, machine] : machines) {
        text += machine.serves ? std::to_string(key) + " " : "";
    }
    return text.empty() ? "nobody serves" : text + (text.size() > 2 ? "serve" : "serves");
}

std::string Kept::answer(uint32_t key, uint64_t call) {
    const auto found = machines[key].answers.find(call);
    return found == machines[key].answers.end() ? "none"
                                                : (found->second.ok ? "ok: " : "no: ") +
                                                      found->second.text;
}

} // namespace sim
