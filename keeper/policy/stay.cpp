#include "keeper/policy/policies.h"

namespace keeper {

/* An election after the loss of a node ends within this time. */
constexpr Duration after_leave{1'200};
/* After a join: when all have sent what a join makes them send, and until when a write's election
 * ends before a move may begin (calm_after). */
constexpr Duration after_join{200};
constexpr Duration join_limit{600};
constexpr Duration settle_after{2'000};

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

/* Whether all have heard that this node is about to write its preference, with no move before that.
 * Texts arrive in one order: so a request that comes after it waits until all is calm again. */
static bool announced(Turn &turn) {
    Known &known = turn.known;
    known.settling = true;
    return turn.text && turn.text->from == known.local && turn.text->report.settling;
}

/* On the master: why it must write its preference now; empty: it need not. */
std::string Stay::why_write(Turn &turn) {
    const Known &known = turn.known;
    const bool others = std::ranges::any_of(known.peers, [&](const auto &entry) {
        return entry.first != known.local && entry.second.member && entry.second.report.preferred;
    });
    if (turn.get<NewMaster>() != nullptr && known.now < known.left_at + after_leave) {
        return "it became master after the loss of another node";
    }
    if (turn.text && turn.text->from != known.local && turn.before.preferred &&
        !turn.text->report.preferred) {
        /* An election runs in which the others tie with us. */
        return known.name(turn.text->from) + " was preferred until now";
    }
    if (joined != 0 && turn.due(joined_at + after_join)) {
        const NodeId node = std::exchange(joined, 0);
        if (known.current.preferred && known.now < joined_at + join_limit) {
            return known.name(node) + " has joined";
        }
    }
    return !known.current.preferred && !others && turn.due(known.changed_at + settle_after) &&
                   announced(turn)
               ? "it is master, and no other node is preferred"
               : "";
}

void Stay::take(Turn &turn) {
    Known &known = turn.known;
    known.settling = false;
    if (const auto *news = turn.get<Joined>(); news != nullptr && news->node != known.local) {
        joined = news->node;
        joined_at = known.now;
    }
    if (std::exchange(off, known.stay_off) != known.stay_off) {
        off_since = known.now;
    }
    /* A join switches it off until the new member's keeper is heard: that is not worth a line. */
    if (off != logged && turn.due(off_since + settle_after)) {
        logged = off;
        turn.info(off.empty() ? "STAY: at work" : "STAY: does nothing: " + off);
    }
    const NodeId master = known.current.master_node;
    if (!off.empty() || known.moving) {
        clearing = false;
    } else if (known.master()) {
        const std::string reason = why_write(turn);
        if (!reason.empty()) {
            turn.info("STAY: preferring this node: " + reason);
            turn.prefer(true);
        }
    } else if (clearing && turn.get<SnapshotRead>() != nullptr) {
        clearing = false;
        if (known.current.preferred) {
            turn.info("STAY: not preferring this node any more: " + known.name(master) +
                      " is master and stays it");
            turn.prefer(false);
        }
    } else if (!clearing && master != 0 && known.current.preferred &&
               turn.due(known.changed_at + settle_after) && announced(turn)) {
        clearing = true;
        turn.world.read_snapshot();
    }
}

} // namespace keeper
