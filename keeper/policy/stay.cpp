#include "keeper/policy/policies.h"

namespace keeper {

/* An election after the loss of a node ends within this time. */
constexpr Duration after_leave{1'200};
constexpr Duration settle_after{2'000}, settle_within{1'000};

static void write(Turn &turn, const std::string &why) {
    turn.info("STAY: preferring this node: " + why);
    turn.prefer(true);
}

std::string Stay::why_off(const Known &known) {
    int keepers = 0;
    for (const auto &[node, peer] : known.peers) {
        keepers += known.present(node) ? 1 : 0;
        if (known.present(node) && !peer.report.stay) {
            return "it is switched off on " + known.name(node);
        }
    }
    return !known.config.stay ? "it is switched off in keeper.conf"
           : !known.ready     ? "the daemon does not run"
           : known.frozen()   ? "mastership is frozen"
           : keepers == known.current.members
               ? ""
               : "a keeper is heard on " + std::to_string(keepers) + " of " +
                     std::to_string(known.current.members) + " members";
}

/* On the master. */
void Stay::settle(Turn &turn) {
    const Known &known = turn.known;
    if (!settling) {
        const bool unsettled = std::ranges::any_of(known.peers, [&](const auto &entry) {
            const auto &[node, peer] = entry;
            return peer.member && known.report(node).preferred != (node == known.local);
        });
        if (!unsettled || known.moving ||
            !turn.due(std::max(known.changed_at, tried_at) + settle_after)) {
            return;
        }
        tried_at = known.now;
        settling = Settling{.since = known.now};
        for (const auto &[node, peer] : known.peers) {
            if (peer.member && node != known.local) {
                settling->missing.insert(node);
            }
        }
        turn.say({.verb = Verb::settle});
    } else if (turn.said(Verb::settle) && turn.own_text()) {
        if (known.moving) {
            settling.reset(); /* it came after the request: nobody answers */
            return;
        }
        settling->number = turn.text->sequence;
    } else if (turn.said(Verb::cleared) && turn.text->number == settling->number) {
        settling->missing.erase(turn.text->from);
    }
    if (settling->number != 0 && settling->missing.empty()) {
        settling.reset();
        if (!known.current.preferred) {
            write(turn, "it is master, and no other node is preferred");
        }
    } else if (turn.due(settling->since + settle_within)) {
        turn.warn(
            "STAY: not settled, no answer from " +
            (settling->missing.empty() ? "corosync" : known.name(*settling->missing.begin())));
        settling.reset();
        turn.due(known.now + settle_after);
    }
}

/* On a slave. The answer follows the write; so the master's write follows both. */
void Stay::clear(Turn &turn) {
    const Known &known = turn.known;
    const NodeId master = known.current.master_node;
    if (turn.said(Verb::settle) && turn.text->from == master && !known.moving) {
        clearing = turn.text->sequence;
        turn.act(ReadSnapshot{});
    } else if (clearing && turn.get<SnapshotRead>() != nullptr) {
        const bool preferred = known.current.preferred;
        if (preferred) {
            turn.info("STAY: not preferring this node any more: " + known.name(master) +
                      " is master and stays it");
            turn.prefer(false);
        }
        turn.say({.verb = Verb::cleared, .number = *clearing, .wrote = preferred});
        clearing.reset();
    }
}

void Stay::take(Turn &turn) {
    const Known &known = turn.known;
    if (std::exchange(off, known.stay_off) != known.stay_off) {
        off_since = tried_at = known.now;
    }
    /* A join switches it off until the new member's keeper is heard: that is not worth a line. */
    if (off != told && turn.due(off_since + settle_after)) {
        told = off;
        turn.info(off.empty() ? "STAY: at work" : "STAY: does nothing: " + off);
    }
    if (!off.empty() || known.changed_at == known.now) {
        settling.reset();
        clearing.reset();
    }
    if (off.empty() && !known.master()) {
        clear(turn);
    } else if (off.empty()) {
        if (turn.get<NewMaster>() != nullptr && known.now < known.left_at + after_leave) {
            write(turn, "it became master after the loss of another node");
        } else if (turn.said(Verb::cleared) && turn.text->wrote) {
            /* Also when it comes too late: an election runs in which the others tie with us. */
            write(turn, known.name(turn.text->from) + " was preferred until now");
        }
        settle(turn);
    }
}

} // namespace keeper
