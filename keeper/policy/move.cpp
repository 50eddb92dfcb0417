#include "keeper/policy/policies.h"

namespace keeper {

namespace {

constexpr Duration under_way_for{2'000};
/* A text with its repetitions, and the move itself. */
constexpr Duration asked_for{1'300 + 2'000};
/* The target's word, after it was applied: should corosync refuse that, the move was made anyway.
 */
constexpr Duration word_within{400};
/* How long a request waits for the run steps of the target. */
constexpr Duration idle_within{10'000};
/* The stop of a daemon waits 2 s at most, and some of that is not ours. */
constexpr Duration leave_within{1'800};
/* Nodes that are stopped together hear of each other before one passes the role on. */
constexpr Duration leave_after{200};

std::string because(const Known &known, Why why, NodeId by) {
    return why == Why::leaving ? "the daemon of " + known.name(by) + " is being stopped"
           : why == Why::unfit ? known.name(by) + " is not fit"
           : why == Why::again ? "its run steps have to run again"
                               : "an operator asked " + known.name(by) + " for it";
}

/* Why no node can take over; `busy`: one can in a moment. */
std::string nobody_fit(const Known &known) {
    std::string text = "no other node is fit";
    for (const auto &[node, peer] : known.peers) {
        const std::string reason = known.why_unfit(node);
        if (node != known.local && reason == busy) {
            return busy;
        }
        text += node != known.local ? "; " + known.name(node) + ": " + reason : "";
    }
    return text;
}

/* Why a move to `target` cannot be asked for; `busy`: not yet; empty: it can. */
std::string objection(const Known &known, Why why, NodeId target) {
    return !known.ready         ? "the daemon of this node does not run"
           : known.frozen()     ? known.frozen_text()
           : known.moving       ? "another move is under way, " + describe(known, *known.moving)
           : why == Why::again  ? ""
           : target == NodeId() ? nobody_fit(known)
                                : known.why_unfit(target);
}

/* Why this node does not take over; empty: it does. */
std::string refusal(const Known &known, Why why) {
    const std::string unfit = known.why_unfit(known.local);
    return known.frozen()              ? known.frozen_text()
           : known.current.members < 2 ? "it is alone in the group"
           : why == Why::again         ? (known.master() ? "" : "it is not master any more")
           : unfit == busy             ? ""
                                       : unfit;
}

} // namespace

std::string describe(const Known &known, const Moving &moving) {
    return "to " + known.name(moving.target) + ": " + because(known, moving.why, moving.by);
}

void Move::follow(Turn &turn) {
    Known &known = turn.known;
    const auto &text = turn.text;
    if (known.moving) {
        const bool done = turn.said(Verb::done) && text->node == known.moving->by &&
                          text->number == known.moving->number;
        if (done || turn.get<NewMaster>() != nullptr || !known.ready ||
            turn.due(known.moving->since + under_way_for)) {
            turn.moved = std::exchange(known.moving, std::nullopt);
        }
    }
    std::erase_if(known.unfit_moves,
                  [&](Time time) { return known.now >= time + unfit_moves_within; });
    if (turn.said(Verb::move) && known.ready && !known.moving) {
        /* Whether the target is being stopped all nodes have heard in the same order. */
        const auto target = known.peers.find(text->node);
        if (target == known.peers.end() || !target->second.report.leaving) {
            known.moving = Moving{text->from, text->sequence, text->node, text->why, known.now};
            turn.due(known.now + under_way_for);
        }
        if (text->why == Why::unfit) {
            known.unfit_moves.push_back(known.now);
        }
    }
}

void Move::begin(Turn &turn) {
    const Known &known = turn.known;
    const auto *asked = turn.get<Asked::Move>();
    const NodeId target = asked != nullptr ? asked->target.value_or(NodeId()) : NodeId();
    if (turn.get<Asked::HandOver>() != nullptr && leaving) {
        turn.answer(false, "the hand-over was asked for already");
    } else if (turn.get<Asked::HandOver>() != nullptr) {
        leaving = Leaving{.call = std::get<Asked>(turn.input).id, .since = known.now};
    } else if (asked != nullptr && asking) {
        turn.answer(false, "this node is asking for another move");
    } else if (asked != nullptr && target != 0 && target == known.current.master_node) {
        turn.answer(true, known.name(target) + " is master already");
    } else if (asked != nullptr) {
        asking =
            Asking{.target = target, .since = known.now, .call = std::get<Asked>(turn.input).id};
    } else if (turn.wanted && !asking) {
        const NodeId again = turn.wanted == Why::again ? known.local : NodeId();
        asking = Asking{.why = *turn.wanted, .target = again, .since = known.now};
    }
}

/* What has come of our request: why it failed, or the empty text; none: it goes on. */
std::optional<std::string> Move::outcome(Turn &turn) {
    const Known &known = turn.known;
    const auto &text = turn.text;
    if (!asking->sent) {
        const NodeId target = asking->target != 0 ? asking->target : known.best_other();
        const std::string reason = objection(known, asking->why, target);
        if (!reason.empty()) {
            return reason == busy && !turn.due(asking->since + idle_within) ? std::nullopt
                                                                            : std::optional(reason);
        }
        turn.info("MOVE: asking " + known.name(target) +
                  " to take over: " + because(known, asking->why, known.local));
        turn.say({.verb = Verb::move, .node = target, .why = asking->why});
        asking->target = target;
        asking->sent = known.now;
    } else if (turn.said(Verb::done) && text->node == known.local) {
        return text->reason;
    } else if (turn.said(Verb::move) && turn.own_text() &&
               !(known.moving && known.moving->by == known.local)) {
        return known.moving ? "another move is under way, " + describe(known, *known.moving)
                            : "its daemon is being stopped";
    } else if (turn.moved && turn.moved->by == known.local && !asking->applied) {
        const auto *applied = turn.get<NewMaster>();
        if (applied == nullptr) {
            return "it did not take over within " + seconds(under_way_for);
        }
        if (applied->node != asking->target) {
            return known.name(applied->node) + " became master";
        }
        asking->applied = true;
        asking->sent = known.now;
    }
    if (!turn.due(*asking->sent + (asking->applied ? word_within : asked_for))) {
        return std::nullopt;
    }
    return asking->applied ? "" : "corosync did not take the request";
}

void Move::ask(Turn &turn) {
    const auto failure = outcome(turn);
    if (!failure) {
        return;
    }
    const Asking asked = *std::exchange(asking, std::nullopt);
    const std::string target = asked.target != 0 ? turn.known.name(asked.target) : "another node";
    const bool ok = failure->empty();
    const std::string text =
        ok ? target + " is master" : "not moved to " + target + ": " + *failure;
    ok ? turn.info("MOVE: " + text) : turn.warn("MOVE: " + text);
    if (asked.call != 0) {
        turn.act(Answer{asked.call, ok, text});
    }
}

void Move::leave(Turn &turn) {
    const Known &known = turn.known;
    const NodeId master = known.current.master_node;
    const auto self = known.peers.find(known.local);
    const std::string reason = objection(known, Why::leaving, known.best_other());
    const auto answer = [&](bool ok, const std::string &text) {
        turn.info("MOVE: the daemon of this node may stop: " + text);
        turn.act(Answer{leaving->call, ok, text});
        leaving.reset();
    };
    if (!leaving->said && self != known.peers.end() && self->second.report.leaving) {
        leaving->said = known.now;
    }
    if (!known.ready) {
        answer(true, "it does not run");
    } else if (!known.master() && !asking) {
        answer(true, master != 0 ? known.name(master) + " is master" : "no master is known");
    } else if (turn.due(leaving->since + leave_within)) {
        answer(false, "no node took over within " + seconds(leave_within));
    } else if (leaving->said && !asking && !known.moving &&
               turn.due(*leaving->said + leave_after)) {
        if (reason.empty()) {
            asking = Asking{.why = Why::leaving, .since = known.now};
        } else if (reason != busy) {
            answer(false, reason);
        }
    }
}

/* This node is the target of the move under way. */
void Move::take_over(Turn &turn) {
    const Known &known = turn.known;
    const Moving &moving = *known.moving;
    const std::string reason = refusal(known, moving.why);
    const auto *answer = turn.get<TakeOverAnswered>();
    const auto say = [&](const std::string &failure) {
        turn.say(
            {.verb = Verb::done, .node = moving.by, .number = moving.number, .reason = failure});
        taking = Taking::over;
    };
    taking = taking == Taking::no ? Taking::waiting : taking;
    if ((taking == Taking::waiting || taking == Taking::reading) && !reason.empty()) {
        turn.warn("MOVE: not taking over, although " + because(known, moving.why, moving.by) +
                  ": " + reason);
        say(reason);
    } else if (taking == Taking::waiting && known.master() && moving.why != Why::again) {
        say("");
    } else if (taking == Taking::waiting && !known.runner.running() && turn.due(known.calm_at)) {
        turn.act(ReadSnapshot{});
        taking = Taking::reading;
    } else if (taking == Taking::reading && turn.get<SnapshotRead>() != nullptr) {
        turn.info("MOVE: taking over: " + because(known, moving.why, moving.by));
        turn.act(CallTakeOver{});
        taking = Taking::called;
    } else if (taking == Taking::called && answer != nullptr && !answer->accepted) {
        say("its daemon refused the take-over");
    }
}

void Move::take(Turn &turn) {
    const Known &known = turn.known;
    const auto *applied = turn.get<NewMaster>();
    begin(turn);
    if (turn.moved && taking == Taking::called && applied != nullptr &&
        applied->node == known.local) {
        /* A hand-over that was followed by a stop ended on another node in 7 of 10 tries without
           this write. One write gains 10; but an old master whose last sync crossed the take-over
           is ahead by 11 until the next one, and took the role back. So write twice. The word
           follows: who hears it has had both election starts. */
        if (turn.moved->why != Why::again && known.stay_off.empty()) {
            turn.prefer(true);
            turn.prefer(true);
        }
        turn.say({.verb = Verb::done, .node = turn.moved->by, .number = turn.moved->number});
    }
    taking = turn.moved || !known.moving ? Taking::no : taking;
    if (known.moving && known.moving->target == known.local) {
        take_over(turn);
    }
    if (asking && asking->sent) {
        ask(turn);
    }
    if (leaving) {
        leave(turn);
    }
    if (asking && !asking->sent) {
        ask(turn);
    }
}

} // namespace keeper
