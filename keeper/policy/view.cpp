#include "keeper/policy/policies.h"

namespace keeper {

namespace {

constexpr Duration report_every{10'000}, report_apart{500}, resend_after{300};
constexpr unsigned send_at_most = 4;

bool differs(Report now, const Report &before) {
    now.hello = before.hello;
    now.steps.since = before.steps.since;
    return now != before;
}

} // namespace

std::optional<Text> View::receive(Known &known, const std::string &line) {
    std::optional<Text> text = decode(line, known.now);
    const bool own = text && text->from == known.local;
    if (!text || (own && text->boot != known.config.boot)) {
        return std::nullopt;
    }
    auto &[boot, number] = last[text->from];
    if (boot == text->boot && text->sequence <= number) {
        return std::nullopt; /* it was late, not refused */
    }
    boot = text->boot;
    number = text->sequence;
    if (own) {
        under_way.erase(number);
    }
    if (const auto *report = std::get_if<Report>(&text->content)) {
        Peer &peer = known.peers[text->from];
        const Time since = peer.report.steps.since;
        peer = {.report = *report, .heard = known.now, .member = true};
        /* As an age it is told with the delay of each text; what is published shall not change for
         * that. */
        if (std::chrono::abs(report->steps.since - since) < report_every / 5) {
            peer.report.steps.since = since;
        }
        greeted = greeted || own;
        asked = asked || (report->hello && !own);
    }
    return text;
}

SendText View::send(const Known &known, const Content &content) {
    const bool report = std::holds_alternative<Report>(content);
    if (report) {
        /* A newer one takes the place of one that was refused. */
        std::erase_if(under_way, [](const auto &entry) { return entry.second.report; });
    }
    const std::string text =
        encode({known.local, known.config.boot, ++sequence, content}, known.now);
    under_way[sequence] = {.text = text, .at = known.now, .report = report};
    return SendText{text};
}

void View::resend(Turn &turn) {
    for (auto entry = under_way.begin(); entry != under_way.end();) {
        auto &[number, sent] = *entry;
        if (turn.due(sent.at + resend_after)) {
            if (sent.times == send_at_most) {
                turn.warn("VIEW: corosync refused a text " + std::to_string(send_at_most) +
                          " times, it is given up: " + sent.text);
                entry = under_way.erase(entry);
                continue;
            }
            turn.act(SendText{sent.text});
            sent.at = turn.known.now;
            ++sent.times;
            turn.due(sent.at + resend_after);
        }
        ++entry;
    }
}

void View::take(Turn &turn) {
    const Known &known = turn.known;
    if (!known.ready) {
        under_way.clear();
        reported.reset();
        greeted = asked = false;
        return;
    }
    resend(turn);
    Report report = known.report(known.local);
    report.hello = !greeted;
    Time due{};
    if (reported) {
        const bool urgent = report.leaving != reported->leaving;
        const bool soon = asked || differs(report, *reported);
        due = reported_at + (urgent ? Duration(0) : soon ? report_apart : report_every);
    }
    if (turn.due(due)) {
        turn.say(report);
        reported = report;
        reported_at = known.now;
        asked = false;
        turn.due(reported_at + report_every);
    }
}

} // namespace keeper
