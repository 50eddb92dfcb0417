#include "keeper/policy/policies.h"

namespace keeper {

constexpr Duration report_every{10'000}, report_apart{500}, resend_after{300}, late_by{400};
constexpr unsigned send_at_most = 4;
constexpr size_t numbers_kept = 16;

void View::receive(Turn &turn, const std::string &line) {
    Known &known = turn.known;
    const auto text = decode(line, known.now);
    const bool own = text && text->from == known.local;
    if (!text || (own && text->boot != known.config.boot)) {
        return; /* not a keeper's, or an earlier keeper's of this node */
    }
    auto &[boot, numbers] = heard[text->from];
    if (std::exchange(boot, text->boot) != text->boot) {
        numbers.clear();
    }
    if (!numbers.insert(text->sequence).second) {
        return; /* it was late, not refused, and was sent again */
    }
    Peer &peer = known.peers[text->from];
    peer.heard = known.now;
    peer.member = true;
    if (text->sequence == *numbers.rbegin()) { /* not one that was sent again */
        /* As an age it comes with the delay of the text: that alone changes nothing. */
        const Steps before = std::exchange(peer.report, text->report).steps;
        if (std::chrono::abs(before.since - peer.report.steps.since) < late_by) {
            peer.report.steps.since = before.since;
        }
    }
    if (numbers.size() > numbers_kept) {
        numbers.erase(numbers.begin());
    }
    if (own) {
        under_way.erase(text->sequence);
        greeted = true;
    } else if (text->verb == Verb::hello) {
        asked = true;
    }
    turn.text = text;
}

SendText View::send(const Known &known, Text text) {
    const bool report = text.verb == Verb::report || text.verb == Verb::hello;
    if (report) {
        /* A newer one takes the place of one that was refused. */
        std::erase_if(under_way, [](const auto &entry) { return entry.second.report; });
    }
    text.from = known.local;
    text.boot = known.config.boot;
    text.sequence = ++sequence;
    text.report = known.report(known.local);
    reported = text.report;
    reported_at = known.now;
    const std::string line = encode(text, known.now);
    under_way[sequence] = {.text = line, .at = known.now, .report = report};
    return SendText{line};
}

void View::take(Turn &turn) {
    const Known &known = turn.known;
    if (!known.ready) {
        under_way.clear();
        reported.reset();
        greeted = asked = false;
        return;
    }
    for (auto &[number, sent] : under_way) {
        if (sent.times < send_at_most && turn.due(sent.at + resend_after)) {
            turn.act(SendText{sent.text});
            sent.at = known.now;
            ++sent.times;
        }
        turn.due(sent.at + resend_after);
    }
    std::erase_if(under_way, [&](const auto &entry) {
        const Sent &sent = entry.second;
        const bool lost = known.now >= sent.at + resend_after;
        if (lost) {
            turn.warn("VIEW: corosync refused a text " + std::to_string(send_at_most) +
                      " times, it is given up: " + sent.text);
        }
        return lost;
    });
    const Report report = known.report(known.local);
    Time due{};
    if (reported) {
        reported->steps.since = report.steps.since;
        const bool soon = asked || report != *reported;
        const bool now = report.leaving != reported->leaving;
        due = now ? Time(0) : reported_at + (soon ? report_apart : report_every);
    }
    if (turn.due(due)) {
        turn.say({.verb = greeted ? Verb::report : Verb::hello});
        asked = false;
        turn.due(known.now + report_every);
    }
}

} // namespace keeper
