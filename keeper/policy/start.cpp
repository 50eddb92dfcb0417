#include "keeper/policy/policies.h"

namespace keeper {

/* A request that was refused is made again. */
constexpr Duration tries_apart{5'000};

static void take_end(Turn &turn, const SequenceEnd &end) {
    const auto &unfit = turn.known.stored.unfit;
    const auto cause = unfit ? unfit->cause : Unfit::Cause::start;
    if (!end.failed.empty()) {
        turn.fail("START: " + end.failed + ", this node is marked unfit");
        turn.mark(Unfit{cause, end.failed});
    } else if (end.known && unfit && cause == Unfit::Cause::start) {
        turn.info("START: all steps succeeded, this node is not marked unfit any more");
        turn.mark({});
    }
}

/* An operator says that the node can serve. */
static void clear(Turn &turn) {
    const Known &known = turn.known;
    const std::string text =
        known.stored.unfit
            ? "this node is not marked unfit any more; it was: " + known.stored.unfit->reason
            : "this node was not marked unfit";
    turn.info("START: " + text);
    turn.mark({});
    turn.answer(true,
                known.master() ? text + "; to run its steps again: duskvalectl take-over" : text);
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
    if (turn.get<Asked::Fit>() != nullptr) {
        clear(turn);
    } else if (turn.end && turn.end->start) {
        take_end(turn, *turn.end);
    }
    if (!known.master() || !known.stored.unfit || known.runner.running() || known.leaving ||
        known.moving) {
        stays = known.stored.unfit ? stays : "";
        return;
    }
    const std::string reason = why_stays(known);
    if (std::exchange(stays, reason) != reason && !reason.empty()) {
        turn.fail("START: the role stays on this unfit node: " + reason);
    }
    if (!reason.empty() && !known.unfit_moves.empty()) {
        turn.due(known.unfit_moves.front() + unfit_moves_within);
    } else if (reason.empty() && turn.due(tried_at + tries_apart)) {
        tried_at = known.now;
        turn.wanted = Why::unfit;
    }
}

} // namespace keeper
