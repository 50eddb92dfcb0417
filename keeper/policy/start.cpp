#include "keeper/policy/policies.h"

namespace keeper {

/* A request that was refused is made again. */
constexpr Duration tries_apart{5'000};

static void take_end(Turn &turn, const SequenceEnd &end) {
    const std::string &by = turn.known.stored.unfit_by;
    if (!end.failed.empty()) {
        turn.error("START: " + end.failed + ", this node is marked unfit");
        turn.mark(end.failed, by == "watch" ? by : "start");
    } else if (end.known && by == "start") {
        turn.info("START: all steps succeeded, this node is not marked unfit any more");
        turn.mark("", "");
    }
}

/* An operator says that the node can serve. */
static void clear(Turn &turn, void *call) {
    const Known &known = turn.known;
    const std::string &unfit = known.stored.unfit;
    const std::string text = unfit.empty()
                                 ? "this node was not marked unfit"
                                 : "this node is not marked unfit any more; it was: " + unfit;
    const std::string next =
        known.master() ? "; to run its steps again: duskvalectl take-over" : "";
    turn.info("START: " + text);
    turn.mark("", "");
    turn.world.answer(call, true, text + next);
}

/* Why the role stays on this unfit master; empty: it can be moved. */
static std::string why_stays(const Known &known) {
    return known.frozen() ? known.frozen_text()
           : known.unfit_moves.size() >= unfit_moves_most
               ? "the cluster has made " + std::to_string(unfit_moves_most) +
                     " such moves within " + seconds(unfit_moves_within)
           : known.best_other() == 0 ? "no other node is fit"
                                     : "";
}

void Start::take(Turn &turn) {
    const Known &known = turn.known;
    if (const auto *asked = turn.asked(Asked::fit)) {
        clear(turn, asked->call);
    } else if (turn.end && turn.end->start) {
        take_end(turn, *turn.end);
    }
    if (!known.master() || known.stored.unfit.empty() || known.running() || known.leaving ||
        known.moving) {
        stays = known.stored.unfit.empty() ? "" : stays;
        return;
    }
    const std::string reason = why_stays(known);
    if (std::exchange(stays, reason) != reason && !reason.empty()) {
        turn.error("START: the role stays on this unfit node: " + reason);
    }
    if (!reason.empty() && !known.unfit_moves.empty()) {
        turn.due(known.unfit_moves.front() + unfit_moves_within);
    } else if (reason.empty() && turn.due(tried_at + tries_apart)) {
        tried_at = known.now;
        turn.wanted = Why::unfit;
    }
}

} // namespace keeper
