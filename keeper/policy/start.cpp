#include "keeper/policy/policies.h"

namespace keeper {

namespace {

/* A request that was refused is made again. */
constexpr Duration tries_apart{5'000};

/* An operator says that the node can serve. */
void clear(Turn &turn) {
    const Known &known = turn.known;
    std::string text = "this node was not marked unfit";
    if (known.stored.unfit) {
        text = "this node is not marked unfit any more; it was: " + known.stored.unfit->reason;
        turn.info("START: " + text);
        turn.store({}, known.stored.preferred);
    }
    const Phase phase = known.runner.steps.phase;
    if (known.master() && (phase == Phase::failed || phase == Phase::not_runnable)) {
        const bool refused = known.frozen() || known.current.members < 2;
        text += refused ? "; to run its steps again, restart the daemon" : "; its steps run again";
        if (!refused) {
            turn.request = MoveRequest{MoveRequest::Why::again, known.local};
        }
    }
    turn.answer(true, text);
}

void mark(Turn &turn, const SequenceEnd &end) {
    const Stored &stored = turn.known.stored;
    const auto cause = stored.unfit ? stored.unfit->cause : Unfit::Cause::start;
    if (!end.failed.empty()) {
        turn.fail("START: " + end.failed + ", this node is marked unfit");
        turn.store(Unfit{cause, end.failed}, stored.preferred);
    } else if (end.known && stored.unfit && cause == Unfit::Cause::start) {
        turn.info("START: all steps succeeded, this node is not marked unfit any more");
        turn.store({}, stored.preferred);
    }
}

/* Why the role stays on this unfit master; empty: it can be moved. */
std::string why_stays(const Known &known) {
    if (known.frozen()) {
        return known.frozen_text();
    }
    if (known.unfit_moves.size() >= unfit_moves_most) {
        return "the cluster has made " + std::to_string(unfit_moves_most) + " such moves within " +
               seconds(unfit_moves_within);
    }
    return known.best_other() != 0 ? "" : "no other node is fit";
}

} // namespace

void Start::take(Turn &turn) {
    const Known &known = turn.known;
    if (turn.call<Asked::Fit>() != nullptr) {
        clear(turn);
    }
    if (turn.end && turn.end->start) {
        mark(turn, *turn.end);
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
    if (!reason.empty()) {
        turn.due(known.unfit_moves.empty() ? known.now
                                           : known.unfit_moves.front() + unfit_moves_within);
    } else if (turn.due(tried_at + tries_apart)) {
        tried_at = known.now;
        turn.request = MoveRequest{MoveRequest::Why::unfit, known.best_other()};
    }
}

} // namespace keeper
