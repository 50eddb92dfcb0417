#include "keepers.h"
#include <gmock/gmock.h>
#include <cstdlib>
using sim::Kept;
using keeper::Asked;
TEST(KeptStay, KeepsTheMasterOverRestarts) {
    for (unsigned n : {3u, 5u}) for (uint64_t seed = 0; seed < 6; ++seed) {
        Kept c(n, seed);
        c.start(1); c.run(3000); c.start_all(); c.run(10000);
        ASSERT_EQ(c.service(), "1 serves") << seed << c.masters();
        for (int i = 0; i < 20; ++i) {
            uint32_t k = 2 + c.pick(n - 1);
            c.restart(k, 300); c.run(6000);
            ASSERT_EQ(c.service(), "1 serves") << "seed " << seed << " try " << i << " " << c.masters() << "\n" << c.machines[1].log << c.machines[k].log;
        }
        EXPECT_EQ(c.aborts(), n == 3 ? "0 0 0" : "0 0 0 0 0");
        EXPECT_THAT(c.faults, ::testing::IsEmpty());
    }
}
static uint32_t master_of(Kept &c) { for (auto &[k, n] : c.nodes) if (n.daemon && n.master) return n.master; return 0; }
static void play(uint64_t seed, bool turbulent) {
    Kept c(seed % 2 == 0 ? 3 : 5, seed);
    unsigned n = static_cast<unsigned>(c.nodes.size());
    std::string story;
    for (uint32_t k = 1; k <= n; ++k) { c.start(k); c.run(c.pick(3000)); }
    c.run(10000);
    for (int i = 0; i < 12; ++i) {
        uint32_t k = 1 + c.pick(n), m = master_of(c), expect = m; uint64_t call = 0; uint32_t caller = 0;
        std::string what;
        std::string before = c.service();
        switch (c.pick(turbulent ? 14 : 12)) {
        case 0: case 1: what = "restart " + std::to_string(k); c.restart(k, 200 + c.pick(2000)); if (k == m) expect = 0; break;
        case 2: what = "reboot " + std::to_string(k); c.reboot(k, 2000 + c.pick(5000)); if (k == m) expect = 0; break;
        case 3: case 4: { caller = 1 + c.pick(n); what = "move by " + std::to_string(caller) + " to " + std::to_string(k); call = c.ask(caller, Asked::Move{k}); expect = k; break; }
        case 5: { caller = k; what = "move any by " + std::to_string(k); call = c.ask(k, Asked::Move{std::nullopt}); expect = 0; break; }
        case 6: what = "systemctl stop " + std::to_string(k); c.systemctl_stop(k, 1000 + c.pick(3000)); if (k == m) expect = 0; break;
        case 7: what = "keeper " + std::to_string(k); c.stop_keeper(k); c.run(c.pick(3000)); c.start_keeper(k); c.machines[k].daemon = nullptr; break;
        case 8: what = "fails " + std::to_string(k); c.machines[k].start_fails = !c.machines[k].start_fails; break;
        case 9: what = "kill service"; c.kill_service(m); expect = 0; break;
        case 10: what = "fit " + std::to_string(k); c.ask(k, Asked::Fit{}); expect = 0; break;
        case 11: { what = "refuse " + std::to_string(k); c[k].refuses = [left = 1 + c.pick(6)](char t) mutable { return t == 'T' && left > 0 && left-- > 0; }; break; }
        case 12: what = "cut " + std::to_string(k); c.cut({{k}}); expect = 0; break;
        case 13: what = "refuse all " + std::to_string(k); c[k].refuses = [left = 1 + c.pick(6)](char) mutable { return left > 0 && left-- > 0; }; expect = 0; break;
        }
        story += what + " @" + std::to_string(c.now) + "\n";
        if (sim::trace) printf("%8lu ==== %s\n", c.now, what.c_str());
        if (turbulent) { c.run(c.pick(4) == 0 ? c.pick(8000) : c.pick(800)); if (c.pick(3) == 0) c.heal(); continue; }
        c.run(14000);
        uint32_t now = master_of(c);
        bool fails = false; for (auto &[x, mm] : c.machines) fails = fails || mm.start_fails || mm.disk.unfit;
        std::string a = call ? c.answer(caller, call) : "";
        if (call) { story += "   " + a + "\n"; if (!a.starts_with("ok")) expect = a.starts_with("none") ? 99 : m; }
        if (expect && now != expect && !fails) ADD_FAILURE() << "seed " << seed << ": master " << now << " not " << expect << "\n" << story;
        if (!fails && c.service() != std::to_string(now) + " serves") ADD_FAILURE() << "seed " << seed << ": " << c.service() << " masters " << c.masters() << "\n" << story;
        if (::testing::Test::HasFailure()) return;
    }
    c.heal(); for (auto &[k, nn] : c.nodes) { nn.refuses = nullptr; c.machines[k].start_fails = false; }
    c.run(30000);
    size_t tos = c.take_overs.size(); uint32_t m = master_of(c);
    c.run(30000);
    if (c.take_overs.size() != tos || m != master_of(c)) ADD_FAILURE() << "seed " << seed << " bounces\n" << story;
    std::string all; for (unsigned i = 0; i < n; ++i) all += (i ? " " : "") + std::to_string(m);
    bool crit = false; for (auto &[k, mm] : c.machines) crit = crit || mm.keeper->published().verdict.level == keeper::Verdict::Level::critical;
    if (c.masters() != all && !crit) ADD_FAILURE() << "seed " << seed << " masters " << c.masters() << "\n" << story;
    if (!c.faults.empty()) ADD_FAILURE() << "seed " << seed << " " << c.faults[0] << "\n" << story;
    if (!turbulent && c.aborts().find_first_not_of("0 ") != std::string::npos) ADD_FAILURE() << "seed " << seed << " aborts " << c.aborts() << "\n" << story;
}
TEST(KeptRandom, Calm) {
    uint64_t one = getenv("SEED") ? strtoull(getenv("SEED"), nullptr, 10) : 0;
    sim::trace = one != 0;
    for (uint64_t s = one ? one : 1+(getenv("FROM")?strtoull(getenv("FROM"),nullptr,10):0); s <= (one ? one : 4000) && !HasFailure(); ++s) play(s, false);
}
TEST(KeptRandom, Turbulent) {
    uint64_t one = getenv("SEED") ? strtoull(getenv("SEED"), nullptr, 10) : 0;
    sim::trace = one != 0;
    for (uint64_t s = one ? one : 1+(getenv("FROM")?strtoull(getenv("FROM"),nullptr,10):0); s <= (one ? one : 4000) && !HasFailure(); ++s) play(s, true);
}
