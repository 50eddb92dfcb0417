#include "keeper/policy/policies.h"

namespace keeper {

namespace {

using Why = MoveRequest::Why;

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

std::string because(const Known &known, const MoveRequest &what, NodeId by) {
    switch (what.why) {
    case Why::leaving:
        return "the daemon of " + known.name(by) + " is being stopped";
    case Why::unfit:
        return known.name(by) + " is not fit";
    case Why::again:
        return "its run steps have to run again";
    default:
        return "an operator asked " + known.name(by) + " for it";
    }
}

/* Why no node can take over; `busy`: one can in a moment. */
std::string nobody_fit(const Known &known) {
    std::string text = "no other node is fit";
    for (const auto &[node, peer] : known.peers) {
        const std::string reason = known.why_unfit(node).value_or("");
        if (node != known.local && reason == busy) {
            return busy;
        }
        text += node != known.local ? "; " + known.name(node) + ": " + reason : "";
    }
    return text;
}

/* Why a request cannot be sent; `busy`: not yet; none: it can, and has a target then. */
std::optional<std::string> objection(const Known &known, MoveRequest &what) {
    if (!known.ready) {
        return "the daemon of this node does not run";
    }
    if (known.frozen()) {
        return known.frozen_text();
    }
    if (known.moving) {
        return "another move is under way, " + describe(known, *known.moving);
    }
    if (what.why == Why::again) {
        return std::nullopt;
    }
    const NodeId target = what.target != 0 ? what.target : known.best_other();
    const auto reason = target != 0 ? known.why_unfit(target) : nobody_fit(known);
    what.target = reason ? what.target : target;
    return reason;
}

/* Why this node does not take over; empty: it does. */
std::string refusal(const Known &known, Why why) {
    const std::string unfit = known.why_unfit(known.local).value_or(busy);
    return known.frozen()              ? known.frozen_text()
           : known.current.members < 2 ? "it is alone in the group"
           : why == Why::again         ? (known.master() ? "" : "it is not master any more")
           : unfit != busy             ? unfit
                                       : "";
}

} // namespace

std::string describe(const Known &known, const Moving &moving) {
    return "to " + known.name(moving.what.target) + ": " + because(known, moving.what, moving.by);
}

void Move::follow(Turn &turn) {
    Known &known = turn.known;
    const auto *done = turn.get<MoveDone>();
    const auto *request = turn.get<MoveRequest>();
    if (known.moving) {
        const bool word = done != nullptr && done->by == known.moving->by &&
                          done->request == known.moving->request;
        if (word || turn.get<NewMaster>() != nullptr || !known.ready ||
            turn.due(known.moving->since + under_way_for)) {
            turn.moved = std::exchange(known.moving, std::nullopt);
        }
    }
    while (!known.unfit_moves.empty() &&
           known.now >= known.unfit_moves.front() + unfit_moves_within) {
        known.unfit_moves.pop_front();
    }
    if (request != nullptr && known.ready && !known.moving) {
        const auto target = known.peers.find(request->target);
        if (target == known.peers.end() || !target->second.report.leaving) {
            known.moving = Moving{turn.text->from, turn.text->sequence, *request, known.now};
            turn.due(known.now + under_way_for);
        }
        if (request->why == Why::unfit) {
            known.unfit_moves.push_back(known.now);
        }
    }
}

void Move::begin(Turn &turn) {
    const Known &known = turn.known;
    if (turn.call<Asked::HandOver>() != nullptr && leaving) {
        turn.answer(false, "the hand-over was asked for already");
    } else if (turn.call<Asked::HandOver>() != nullptr) {
        leaving = Leaving{.call = std::get<Asked>(turn.input).id, .since = known.now};
    } else if (const auto *asked = turn.call<Asked::Move>()) {
        const NodeId target = asked->target.value_or(NodeId());
        if (asking) {
            turn.answer(false, "this node is asking for another move");
        } else if (target != 0 && target == known.current.master_node) {
            turn.answer(true, known.name(target) + " is master already");
        } else {
            asking = Asking{.what = {Why::asked, target},
                            .since = known.now,
                            .call = std::get<Asked>(turn.input).id};
        }
    }
    if (turn.request && !asking) {
        asking = Asking{.what = *turn.request, .since = known.now};
    }
}

/* What has come of our request: why it failed, or the empty text; none: it goes on. */
std::optional<std::string> Move::outcome(Turn &turn) {
    const Known &known = turn.known;
    if (!asking->sent) {
        const auto reason = objection(known, asking->what);
        if (reason) {
            return reason == busy && !turn.due(asking->since + idle_within) ? std::nullopt : reason;
        }
        turn.info("MOVE: asking " + known.name(asking->what.target) +
                  " to take over: " + because(known, asking->what, known.local));
        turn.say(asking->what);
        asking->sent = known.now;
    }
    const auto *done = turn.get<MoveDone>();
    if (done != nullptr && done->by == known.local) {
        return done->failure;
    }
    const bool ours = known.moving && known.moving->by == known.local;
    if (turn.own_text() && turn.get<MoveRequest>() != nullptr && !ours) {
        return known.moving ? "another move is under way, " + describe(known, *known.moving)
                            : "its daemon is being stopped";
    }
    if (turn.moved && turn.moved->by == known.local && !asking->applied) {
        const auto *applied = turn.get<NewMaster>();
        if (applied == nullptr) {
            return "it did not take over within " + seconds(under_way_for);
        }
        if (applied->node != asking->what.target) {
            return known.name(applied->node) + " became master";
        }
        asking->applied = true;
        asking->sent = known.now;
    }
    return !turn.due(*asking->sent + (asking->applied ? word_within : asked_for)) ? std::nullopt
           : asking->applied ? std::optional<std::string>("")
                             : "corosync did not take the request";
}

void Move::ask(Turn &turn) {
    const auto failure = outcome(turn);
    if (!failure) {
        return;
    }
    const Asking asked = *std::exchange(asking, std::nullopt);
    const std::string target =
        asked.what.target != 0 ? turn.known.name(asked.what.target) : "another node";
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
    const auto answer = [&](bool ok, const std::string &text) {
        turn.info("MOVE: the daemon of this node may stop: " + text);
        turn.act(Answer{leaving->call, ok, text});
        leaving.reset();
    };
    if (!known.ready) {
        return answer(true, "it does not run");
    }
    if (!known.master() && !asking) {
        const NodeId master = known.current.master_node;
        return answer(true, master != 0 ? known.name(master) + " is master" : "there is no master");
    }
    if (turn.due(leaving->since + leave_within)) {
        return answer(false, "no node took over within " + seconds(leave_within));
    }
    const auto self = known.peers.find(known.local);
    if (!leaving->said && self != known.peers.end() && self->second.report.leaving) {
        leaving->said = known.now;
    }
    if (leaving->said && !asking && !known.moving && turn.due(*leaving->said + leave_after)) {
        MoveRequest what{.why = Why::leaving};
        const auto reason = objection(known, what);
        if (!reason) {
            asking = Asking{.what = what, .since = known.now};
        } else if (*reason != busy) {
            answer(false, *reason);
        }
    }
}

/* This node is the target of the move under way. */
void Move::take_over(Turn &turn) {
    const Known &known = turn.known;
    const Moving &moving = *known.moving;
    const std::string reason = refusal(known, moving.what.why);
    const auto *answer = turn.get<TakeOverAnswered>();
    const bool asked = taking == Taking::called || taking == Taking::over;
    const auto say = [&](const std::string &failure) {
        turn.say(MoveDone{moving.by, moving.request, failure});
        taking = Taking::over;
    };
    taking = taking == Taking::no ? Taking::waiting : taking;
    if (!asked && !reason.empty()) {
        turn.warn("MOVE: not taking over, although " + because(known, moving.what, moving.by) +
                  ": " + reason);
        say(reason);
    } else if (taking == Taking::waiting && known.master() && moving.what.why != Why::again) {
        say("");
    } else if (taking == Taking::waiting && !known.runner.running() && turn.due(known.calm_at)) {
        turn.act(ReadSnapshot{});
        taking = Taking::reading;
    } else if (taking == Taking::reading && turn.get<SnapshotRead>() != nullptr) {
        turn.info("MOVE: taking over: " + because(known, moving.what, moving.by));
        turn.act(CallTakeOver{});
        taking = Taking::called;
    } else if (taking == Taking::called && answer != nullptr && !answer->accepted) {
        say("its daemon refused the take-over");
    }
}

void Move::take(Turn &turn) {
    Known &known = turn.known;
    begin(turn);
    const auto *applied = turn.get<NewMaster>();
    if (turn.moved && taking == Taking::called && applied != nullptr &&
        applied->node == known.local) {
        /* A hand-over that was followed by a stop ended on another node in 7 of 10 tries without
           this write. One write gains 10; but an old master whose last sync crossed the take-over
           is ahead by 11 until the next one, and took the role back. So write twice. The word
           follows: who hears it has had both election starts. */
        if (turn.moved->what.why != Why::again && known.stay_off.empty()) {
            turn.prefer(true);
            turn.prefer(true);
        }
        turn.say(MoveDone{turn.moved->by, turn.moved->request, ""});
    }
    taking = turn.moved || !known.moving ? Taking::no : taking;
    if (known.moving && known.moving->what.target == known.local) {
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
