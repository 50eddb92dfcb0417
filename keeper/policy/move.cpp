#include "keeper/policy/policies.h"

namespace keeper {

constexpr Duration under_way_for{2'000};
/* A request that is not back by then, although View has repeated it, will not come. */
constexpr Duration back_within{1'200};
/* The target's word, after it was applied: should corosync refuse that, the move was made anyway.
 */
constexpr Duration word_within{400};
/* How long a request waits for the run steps of the target. */
constexpr Duration idle_within{10'000};
/* The stop of a daemon waits 2 s at most, and some of that is not ours. */
constexpr Duration leave_within{1'800};
/* Nodes that are stopped together hear of each other before one passes the role on. */
constexpr Duration leave_after{200};

static std::string because(const Known &known, Why why, NodeId by) {
    return why == Why::leaving ? "the daemon of " + known.name(by) + " is being stopped"
           : why == Why::unfit ? known.name(by) + " is not fit"
           : why == Why::again ? "its run steps have to run again"
                               : "an operator asked " + known.name(by) + " for it";
}

/* Why a move to `target` cannot be asked for; `busy`: not yet; empty: it can. */
static std::string objection(const Known &known, Why why, NodeId target) {
    return !known.ready                          ? "the daemon of this node does not run"
           : known.frozen()                      ? known.frozen_text()
           : known.moving && why == Why::leaving ? busy
           : known.moving ? "another move is under way, " + Move::describe(known, *known.moving)
           : why == Why::again      ? ""
           : target != NodeId()     ? known.why_unfit(target)
           : known.some_other(busy) ? busy
                                    : "no other node is fit";
}

std::string Move::describe(const Known &known, const Request &request) {
    return "to " + known.name(request.target) + ": " + because(known, request.why, request.from);
}

void Move::follow(Turn &turn) {
    Known &known = turn.known;
    if (known.moving && (turn.get<NewMaster>() != nullptr || !known.ready ||
                         turn.due(known.moving_since + under_way_for))) {
        turn.moved = std::exchange(known.moving, std::nullopt);
    }
    std::erase_if(known.unfit_moves,
                  [&](Time time) { return known.now >= time + unfit_moves_within; });
    const Request asked = turn.text ? turn.text->report.request : Request();
    if (asked.target == 0 || !known.ready || asked == turn.before.request) {
        return;
    }
    /* Whether the target is being stopped all nodes have heard in the same order. */
    const auto target = known.peers.find(asked.target);
    if (known.moving) {
        return; /* it comes second */
    }
    if (target == known.peers.end() || !target->second.report.leaving) {
        known.moving = asked;
        known.moving_since = known.now;
        if (asked.from != known.local && asked.target != known.local) {
            turn.info("MOVE: " + known.name(asked.target) +
                      " is asked to take over: " + because(known, asked.why, asked.from));
        }
        turn.due(known.now + under_way_for);
    }
    if (asked.why == Why::unfit) {
        known.unfit_moves.push_back(known.now);
    }
}

void Move::begin(Turn &turn) {
    const Known &known = turn.known;
    if (const auto *stop = turn.asked(Asked::hand_over)) {
        if (asking && asking->why == Why::leaving) {
            turn.world.answer(stop->call, false, "the hand-over was asked for already");
            return;
        }
        if (asking) {
            finish(turn, "the daemon of this node is being stopped");
        }
        asking = Asking{.why = Why::leaving, .since = known.now, .call = stop->call};
    } else if (const auto *asked = turn.asked(Asked::move)) {
        if (asking) {
            turn.world.answer(asked->call, false, "this node is asking for another move");
        } else if (asked->target != 0 && asked->target == known.current.master_node) {
            turn.world.answer(asked->call, true, known.name(asked->target) + " is master already");
        } else {
            asking = Asking{.target = asked->target, .since = known.now, .call = asked->call};
        }
    } else if (turn.wanted && !asking) {
        const NodeId again = turn.wanted == Why::again ? known.local : NodeId();
        asking = Asking{.why = *turn.wanted, .target = again, .since = known.now};
    }
}

/* Before the request: whether it can be made by now. These two give what has come of it: why it
   failed, or the empty text; none: it goes on. */
std::optional<std::string> Move::prepare(Turn &turn) {
    Known &known = turn.known;
    if (asking->why == Why::leaving) {
        const auto self = known.peers.find(known.local);
        if (!known.master()) {
            return ""; /* it does not run, or there is nothing to hand over */
        }
        if (!asking->said && self != known.peers.end() && self->second.report.leaving) {
            asking->said = known.now;
        }
        if (!asking->said || !turn.due(*asking->said + leave_after)) {
            return std::nullopt;
        }
    }
    const NodeId target = asking->target != 0 ? asking->target : known.best_other();
    const std::string reason = objection(known, asking->why, target);
    if (reason.empty()) {
        asking->target = target;
        asking->sent = known.now;
        known.request = {known.local, target, asking->why, ++number};
        turn.due(known.now + back_within);
        turn.info("MOVE: asking " + known.name(target) +
                  " to take over: " + because(known, asking->why, known.local));
        return std::nullopt;
    }
    const bool waits = reason == busy && !turn.due(asking->since + idle_within);
    return waits ? std::nullopt : std::optional(reason);
}

std::optional<std::string> Move::outcome(Turn &turn) {
    Known &known = turn.known;
    const auto &text = turn.text;
    if (!asking->accepted && text && text->report.request == known.request) {
        known.request.target = 0;
        if (!known.moving || known.moving->from != known.local) {
            return known.moving ? "another move is under way, " + describe(known, *known.moving)
                                : "its daemon is being stopped";
        }
        asking->accepted = true;
    }
    if (asking->accepted && !asking->applied && turn.moved) {
        const auto *applied = turn.get<NewMaster>();
        if (applied == nullptr || applied->node != asking->target) {
            return applied == nullptr
                       ? "it did not take over within " + seconds(under_way_for) + "; see its log"
                       : known.name(applied->node) + " became master";
        }
        asking->applied = known.now;
    }
    if (asking->applied) {
        /* Who hears of the target's preference has had the elections that it starts. */
        const Report report = known.report(asking->target);
        const bool word =
            report.master == asking->target &&
            (report.preferred || asking->why == Why::again || !known.stay_off.empty());
        /* A daemon that is stopped now would end the steps that it runs. */
        const bool steps = asking->why == Why::leaving && known.running();
        return !steps && (word || turn.due(*asking->applied + word_within)) ? std::optional("")
                                                                            : std::nullopt;
    }
    return !asking->accepted && turn.due(*asking->sent + back_within)
               ? std::optional("corosync did not take the request")
               : std::nullopt;
}

void Move::finish(Turn &turn, const std::string &failure) {
    const Asking asked = *std::exchange(asking, std::nullopt);
    turn.known.request.target = 0;
    const bool ok = failure.empty();
    const NodeId node = ok ? turn.known.current.master_node : asked.target;
    const std::string name = node != 0 ? turn.known.name(node) : "another node";
    const std::string text = ok ? name + " is master" : "not moved to " + name + ": " + failure;
    turn.world.log(ok ? LOG_INFO : LOG_WARNING, "MOVE: " + text);
    if (asked.call != nullptr) {
        turn.world.answer(asked.call, ok, text);
    }
}

/* This node is the target of the move under way. */
void Move::take_over(Turn &turn) {
    const Known &known = turn.known;
    const Request &moving = *known.moving;
    const std::string unfit = known.why_unfit(known.local);
    const std::string reason = moving.why != Why::again ? (unfit == busy ? "" : unfit)
                               : known.master()         ? ""
                                                        : "it is not master any more";
    taking = taking == Taking::no ? Taking::waiting : taking;
    if ((taking == Taking::waiting || taking == Taking::reading) && !reason.empty()) {
        turn.warn("MOVE: not taking over, although " + because(known, moving.why, moving.from) +
                  ": " + reason);
        taking = Taking::over;
    } else if (taking == Taking::waiting && !known.running() && turn.due(known.calm_at)) {
        turn.world.read_snapshot();
        taking = Taking::reading;
    } else if (taking == Taking::reading && turn.get<SnapshotRead>() != nullptr) {
        turn.info("MOVE: taking over: " + because(known, moving.why, moving.from));
        turn.world.take_over();
        taking = Taking::called;
    }
}

void Move::take(Turn &turn) {
    const Known &known = turn.known;
    const auto *applied = turn.get<NewMaster>();
    begin(turn);
    if (turn.moved && taking == Taking::called && applied != nullptr &&
        applied->node == known.local && turn.moved->why != Why::again && known.stay_off.empty()) {
        /* A hand-over that was followed by a stop ended on another node in 7 of 10 tries without
           this write. One write gains 10; but an old master whose last sync crossed the take-over
           is ahead by 11 until the next one, and took the role back. So write twice. Our report
           follows: who hears it has had both election starts. */
        turn.prefer(true);
        turn.prefer(true);
    }
    taking = turn.moved || !known.moving ? Taking::no : taking;
    if (known.moving && known.moving->target == known.local) {
        take_over(turn);
    }
    if (!asking) {
        return;
    }
    const bool leaving = asking->why == Why::leaving;
    auto result = asking->sent ? outcome(turn) : std::nullopt;
    if (leaving && result && !result->empty()) { /* while there is time, another one */
        *asking = {.why = Why::leaving,
                   .since = asking->since,
                   .call = asking->call,
                   .said = asking->said};
        result.reset();
    }
    if (!result && !asking->sent) {
        result = prepare(turn);
    }
    if (leaving && !result && turn.due(asking->since + leave_within)) {
        result = asking->applied ? "" : "no node took over within " + seconds(leave_within);
    }
    if (result) {
        finish(turn, *result);
    }
}

} // namespace keeper
