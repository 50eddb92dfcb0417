/*
 * The policies as tables, in scripts/: what one keeper of three nodes, 1 (alpha) to 3 (gamma),
 * hears and what it then does. The table of commands says what they bring about.
 */
#include "keeper/policy/keeper.h"

#include "support/script.h"

namespace keeper {
namespace {

struct Session : World {
    /* What was done since the last time, and the verdict where it is another one. */
    std::string outcome() {
        const Verdict &verdict = keeper->judgement();
        std::string found = "  " + std::string(levels[static_cast<size_t>(verdict.level)]);
        for (const std::string &cause : verdict.causes) {
            found += "\n    " + cause;
        }
        found += found != last ? "\n" : "";
        return std::exchange(done, {}) + (std::exchange(last, found) != found ? found : "");
    }

    /* The world's answers: at once, or when the command that brings them about is given. */
    void send_text(const std::string &text) override {
        const auto sent = decode(text, at);
        const NodeId target = sent->report.request.target;
        note(target != 0 ? "asks node " + std::to_string(target) : "");
        lost_texts ? void() : hear(client::Text{text});
    }
    void send_keep_alive() override { stalled ? note("keep-alive") : hear(KeepAlive{1}); }
    void ping_bus() override { bus_hangs ? void() : hear(BusAnswered{}); }
    void take_over() override { note("takes over"); }
    void write_preferred(bool on) override {
        note(on ? "prefers" : "prefers no more");
        daemon.preferred = on;
    }
    void read_snapshot() override { hear(daemon); }
    void read_run_directory() override { hear(RunDirectoryRead{steps}); }
    void run_watch_programs() override { hear(services); }
    void kill_daemon() override { note("kills the daemon"); }
    void store(const Stored &stored) override {
        if (stored.unfit != disk.unfit || stored.preferred != disk.preferred) {
            note("stores " + (stored.unfit.empty() ? "fit" : "unfit: " + stored.unfit) +
                 (stored.preferred == "true" ? ", preferred" : ""));
        }
        if (stored.frozen_file != disk.frozen_file) {
            std::string text = stored.frozen_file;
            std::ranges::replace(text, '\n', '/');
            note("stores the freeze: " + text);
        }
        disk = stored;
        hear(DiskWritten{disk_problem});
    }
    void answer(void *, bool ok, const std::string &text) override {
        note((ok ? "answers: " : "refuses: ") + text);
    }
    void log(int priority, const std::string &text) override {
        note("<" + std::to_string(priority) + "> " + text);
    }

    void note(const std::string &what) {
        const std::string after = at != began ? "after " + seconds(at - began) + ": " : "";
        done += what.empty() ? "" : "  " + after + what + "\n";
    }
    void hear(const Input &input) { inputs.push_back(input); }
    /* Until nothing is left to be heard by now. */
    void play() {
        for (; !inputs.empty(); inputs.pop_front()) {
            keeper->handle(inputs.front(), at);
        }
    }
    void give(const Input &input) {
        began = at;
        hear(input);
        play();
    }
    /* Time passes, in which the other keepers report every 5 s. */
    void wait(Duration duration) {
        began = at;
        for (const Time end = at + duration; at < end;) {
            const Time next = std::min(
                {end, heard_at + Duration(5000), std::max(keeper->next_wake().value_or(end), at)});
            at = next;
            if (at >= heard_at + Duration(5000)) {
                report();
            } else if (at < end || keeper->next_wake() == end) {
                hear(Tick{});
            }
            play();
        }
    }
    void report() {
        heard_at = at;
        for (auto &[node, peer] : peers) {
            peer.master = daemon.master_node;
            const Text text{.from = node, .boot = "b", .sequence = ++sequence, .report = peer};
            hear(client::Text{encode(text, at)});
        }
    }
    /* What a peer says of itself: "peer 2 leaving", "peer 2 unfit REASON". */
    void peer() {
        Report &its = peers[number(w[1])];
        const std::map<std::string, std::function<void()>> words = {
            {"silent", [&] { peers.erase(number(w[1])); }},
            {"leaving", [&] { its.leaving = true; }},
            {"preferred", [&] { its.preferred = true; }},
            {"wanted", [&] { its.wanted = true; }},
            {"quorum", [&] { its.quorum = Quorum::no; }},
            {"steps",
             [&] {
                 its.steps = {Phase::failed, w[3], 256, at};
             }},
            {"runs",
             [&] {
                 its.steps = {Phase::running, w[3], 0, at};
             }},
            {"unfit", [&] { its.unfit = rest(w, 3); }},
            {"well", [&] { its = settled(); }},
        };
        words.at(w[2])();
        began = at;
        report();
        play();
    }
    static Report settled() {
        Report report;
        report.steps.phase = Phase::settled;
        report.stay = true;
        return report;
    }
    void corosync() {
        const std::map<std::string, std::function<void()>> words = {
            {"gone", [this] { ring.connected = false; }},
            {"inquorate", [this] { ring.quorate = false; }},
            {"two-node", [this] { ring.two_node = true; }},
            {"no-votequorum", [this] { ring.votequorum = false, ring.ring.clear(); }},
            {"ring",
             [this] {
                 ring.ring.clear();
                 for (const std::string &node : split(w[2], ",")) {
                     ring.ring.push_back(number(node));
                 }
             }},
            {"well", [this] { ring.connected = ring.quorate = true; }},
        };
        words.at(w[1])();
        give(ring);
    }
    void meet() {
        give(UnitChanged{.main_pid = 4711});
        give(DaemonAppeared{});
    }

    const Commands commands = {
        /* All is well and has been for a while: "keeper 2", node 2 is master. */
        {"keeper",
         [this] {
             keeper.emplace(Config{.boot = "a"}, *this);
             daemon.local_node = 1;
             daemon.members = 3;
             daemon.master_node = number(w[1]);
             daemon.preferred = daemon.master_node == 1;
             for (const NodeId node : {2U, 3U}) {
                 peers[node] = settled();
                 peers[node].preferred = daemon.master_node == node;
             }
             give(DiskRead{{.preferred = "false"}});
             give(ring);
             meet();
             report();
             apply();
             wait(Duration(6000));
             done.clear();
         }},
        {"wait", [this] { wait(Duration(number(w[1]))); }},
        {"paused", [this] { at += Duration(number(w[1])), give(Tick{}); }}, /* the machine was */
        {"corosync", [this] { corosync(); }},
        {"peer", [this] { peer(); }},
        /* What the daemon announces; "applied": and then its steps ran. */
        {"master", [this] { give(NewMaster{daemon.master_node = number(w[1])}); }},
        {"applied", [this] { daemon.master_node = number(w[1]), apply(); }},
        {"frozen",
         [this] {
             give(FrozenMaster{number(w[1]), rest(w, 2)});
         }},
        {"joined",
         [this] {
             give(Joined{number(w[1]), number(w[2])});
         }},
        {"left",
         [this] {
             give(Left{number(w[1]), number(w[2])});
         }},
        {"begin",
         [this] {
             give(StepBegin{w[1], w[2]});
         }},
        {"end",
         [this] {
             give(StepEnd{w[1], w[2], std::stoi(w[3])});
         }},
        {"done", [this] { give(StepsDone{number(w[1])}); }},
        {"steps",
         [this] {
             steps = {w.begin() + 1, w.end()};
         }},
        {"daemon", [this] { w[1] == "on" ? meet() : give(DaemonVanished{}); }},
        {"unit",
         [this] {
             give(UnitChanged{.stop_steps = w[1] == "failed" ? Phase::stop_failed : Phase::stopped,
                              .aborted = w[1] == "aborted"});
         }},
        /* What the programs in watch.d say from now on; "" is success. */
        {"watch",
         [this] {
             services.results = {{"a.watch", w[1] == "ok", rest(w, 2), w[1] == "missing"}};
         }},
        /* What does not work; "off": it does again. */
        {"preferred", [this] { daemon.preferred = true; }}, /* by its file */
        {"stalled", [this] { stalled = w.back() != "off"; }},
        {"bus-hangs", [this] { bus_hangs = w.back() != "off"; }},
        {"texts-lost", [this] { lost_texts = w.back() != "off"; }},
        {"disk", [this] { disk_problem = rest(w, 1); }},
        /* What an operator or systemd asks for. */
        {"move",
         [this] { give(Asked{.what = Asked::move, .call = this, .target = number(w[1])}); }},
        {"hand-over", [this] { give(Asked{.what = Asked::hand_over, .call = this}); }},
        {"fit", [this] { give(Asked{.what = Asked::fit}); }},
        {"prefer", [this] { give(Asked{.what = Asked::prefer, .on = w.back() != "off"}); }},
    };
    void apply() {
        const std::string action = daemon.master_node == 1 ? "start" : "stop";
        give(NewMaster{daemon.master_node});
        for (const std::string &step : steps) {
            give(StepBegin{step, action});
            give(StepEnd{step, action, 0});
        }
        give(StepsDone{});
    }

    static constexpr const char *levels[] = {"ok", "unknown", "warning", "critical"};
    Words w;
    std::optional<Keeper> keeper;
    Time at{1'000'000}, began = at, heard_at = at;
    std::deque<Input> inputs;
    std::string done, last;
    client::Snapshot daemon;
    Corosync ring{.connected = true,
                  .quorate = true,
                  .ring = {1, 2, 3},
                  .local = 1,
                  .nodes = {{1, "alpha"}, {2, "beta"}, {3, "gamma"}},
                  .votequorum = true,
                  .votes = 3};
    std::vector<std::string> steps = {"/usr/share/duskvale/run.d/10-service.run"};
    WatchRan services{{{"a.watch", true, ""}}};
    std::map<NodeId, Report> peers;
    uint64_t sequence = 0;
    Stored disk;
    std::string disk_problem;
    bool stalled = false, bus_hangs = false, lost_texts = false;
};

TEST(Policies, DoWhatTheyDid) {
    bool any = false;
    for (const auto &script : std::filesystem::directory_iterator(GOLDEN)) {
        expect_script<Session>(script.path().filename());
        any = true;
    }
    EXPECT_TRUE(any);
}

} // namespace
} // namespace keeper
