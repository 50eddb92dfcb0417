#include "keeper/policy/policies.h"

namespace keeper {

constexpr Duration report_every{10'000}, report_apart{500}, again_after{300}, late_by{400};
constexpr unsigned send_at_most = 4;

void View::receive(Turn &turn) {
    Known &known = turn.known;
    const auto *line = turn.get<client::Text>();
    const auto text = line != nullptr ? decode(line->text, known.now) : std::nullopt;
    const bool own = text && text->from == known.local;
    const auto &listed = known.corosync.nodes;
    if (!text || (own && text->boot != known.config.boot) ||
        (!listed.empty() && !listed.contains(text->from))) {
        return; /* not a keeper's, an earlier keeper's of this node, or of a node that is not there
                 */
    }
    Peer &peer = known.peers[text->from];
    turn.text = text;
    turn.before = std::exchange(peer.report, text->report);
    if (text->report.settling || text->report.preferred != turn.before.preferred) {
        known.wait_until_calm();
    }
    peer.heard = known.now;
    peer.member = true;
    /* As an age it comes with the delay of the text: that alone changes nothing. */
    if (std::chrono::abs(turn.before.steps.since - peer.report.steps.since) < late_by) {
        peer.report.steps.since = turn.before.steps.since;
    }
    back = own ? text->sequence : back;
    greeted = greeted || (own && text->hello);
    asked = asked || (!own && text->hello);
}

void View::take(Turn &turn) {
    const Known &known = turn.known;
    for (const auto &[node, peer] : known.peers) {
        turn.due(peer.heard + fresh_for);
    }
    if (!known.ready) {
        reported.reset();
        greeted = asked = false;
        return;
    }
    const Report report = known.report(known.local);
    tries = back == sequence ? 0 : tries;
    Time next{};
    if (reported) {
        reported->steps.since = report.steps.since;
        const bool at_once = report.leaving != reported->leaving ||
                             report.preferred != reported->preferred ||
                             report.settling != reported->settling ||
                             report.request.number > reported->request.number ||
                             (report.master != reported->master && known.master());
        next = at_once                                    ? Time(0)
               : asked || report != *reported             ? sent_at + report_apart
               : back != sequence && tries < send_at_most ? sent_at + again_after
                                                          : sent_at + report_every;
    }
    if (turn.due(next)) {
        ++tries;
        reported = report;
        sent_at = known.now;
        asked = false;
        turn.world.send_text(
            encode({known.local, known.config.boot, ++sequence, !greeted, report}, known.now));
        turn.due(known.now + again_after);
    }
}

} // namespace keeper
