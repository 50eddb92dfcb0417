#include "keeper/policy/policies.h"

namespace keeper {

constexpr Duration again_within{600'000};
/* A request to take over again that came to nothing by then will not. */
constexpr Duration request_within{4'000};
/* A round may begin so much early, with what wakes the keeper anyway: at rest that is once a
 * second. */
constexpr Duration early{900};
/* How often to look for programs where there are none. */
constexpr Duration look_every{10'000};

void Watch::run_again(Turn &turn, const std::string &failure) {
    const Known &known = turn.known;
    if (again_at && known.now < *again_at + again_within) {
        turn.error("WATCH: failed again " + seconds(known.now - *again_at) +
                   " after the steps ran again, this node is marked unfit: " + failure);
        turn.mark(failure, "watch");
        armed = false;
    } else if (known.frozen() || known.current.members < 2 ||
               (asked_at && known.now >= *asked_at + request_within)) {
        turn.error("WATCH: " + failure + "; ending the daemon (process " +
                   std::to_string(known.unit.main_pid) + "), whose restart runs the steps again");
        turn.world.kill_daemon();
        asked_at.reset();
        again_at = known.now;
        armed = false;
    } else if (!asked_at) {
        turn.error("WATCH: " + failure + "; taking over again, which runs the steps again");
        turn.wanted = Why::again;
        asked_at = known.now;
    }
}

void Watch::judge(Turn &turn, const WatchRan &round) {
    std::string failure, not_run;
    for (const WatchRan::Result &result : round.results) {
        if (!result.ok) {
            (result.not_run ? not_run : failure) = result.program + ": " + result.reason;
        }
    }
    none = round.results.empty();
    const std::string news = failure.empty() ? not_run : failure;
    if (!news.empty() && news != logged) {
        turn.warn("WATCH: " + news +
                  (failure.empty() ? " (it cannot be run, which counts for nothing)"
                   : !armed        ? " (the services were not seen to run yet: it does not count)"
                                   : ""));
    } else if (news.empty() && !logged.empty()) {
        turn.info("WATCH: all programs succeed again");
    }
    logged = news;
    if (failure.empty()) {
        failures = 0;
        armed = armed || not_run.empty();
    } else if (armed && ++failures >= turn.known.config.watch_failures) {
        run_again(turn, failure);
    }
}

void Watch::take(Turn &turn) {
    const Known &known = turn.known;
    const Phase phase = known.steps.phase;
    if (turn.get<NewMaster>() != nullptr || turn.get<DaemonAppeared>() != nullptr) {
        again_at = asked_at && known.master() ? known.now : again_at;
        asked_at.reset();
        failures = 0;
        armed = false;
        stale = running;
    }
    if (turn.end && turn.end->start && turn.end->known && turn.end->failed.empty()) {
        armed = true;
    }
    if (turn.asked(Asked::fit) != nullptr) {
        armed = true;
        again_at.reset();
    }
    if (const auto *round = turn.get<WatchRan>()) {
        running = false;
        round_ended = known.now;
        if (!std::exchange(stale, false) && known.master() && !known.running()) {
            judge(turn, *round);
        }
    }
    const bool marked = known.stored.unfit_by == "watch";
    const Time next = round_ended + (none ? look_every : known.config.watch_interval);
    if (known.master() && (phase == Phase::settled || phase == Phase::unknown) && !marked &&
        !known.leaving && !running &&
        (known.now + std::min(early, known.config.watch_interval / 2) >= next || turn.due(next))) {
        running = true;
        turn.world.run_watch_programs();
    }
}

} // namespace keeper
