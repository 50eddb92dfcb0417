/*
 * Why members may name different masters.
 *
 * Members that handled the same election start, got every answer to it that was ever sent before
 * their period ended, and then the winner's take-over, agree: they saw the same proposals in the
 * same order. The oracle follows each node through the events of the group and the lines of its
 * log, and remembers where that chain broke: its doubt. A take-over that is delivered and a period
 * that ends without a new break remove it.
 */
#pragma once

#include "cluster.h"

namespace sim {

class Oracle {
public:
    void started(const Node &node) { states[node.id] = {}; }
    void delivered(const Node &node, const Event &event); /* before it is handled */
    void refused(const Node &node, char type);
    void logged(const Node &node, const std::string &line);
    void applied(const Node &node, uint32_t master); /* before the node announces it */

    /* Why this node may name another master than its peers although the group is quiet; empty: it
       must agree. */
    std::string excuse(const Node &node) const;
    /* Whether a freeze was refused since the node's last change of membership. */
    bool freeze_refused(const Node &node) const { return states.at(node.id).freeze_refused; }

    /* How often mastership moved although it was frozen. */
    unsigned moved = 0;
    /* How often nodes ended themselves, by reason. */
    std::map<std::string, unsigned> aborts;
    static const std::string crossed;
    static const std::string unexplained;

private:
    struct State {
        std::set<uint32_t> members;
        uint64_t start = 0;            /* the event of the last election start */
        std::set<uint32_t> unanswered; /* members whose answer to it did not arrive yet */
        uint64_t take_over = 0;        /* the event of the last take-over */
        uint64_t frozen_change = 0;    /* the last change of membership while frozen */
        bool blind = false;            /* a period runs that began with a refused election start */
        bool freeze_refused = false;
        bool loose = false; /* frozen, but something that was under way may still move mastership */
        std::string doubt, last_line;
        uint64_t cause = 0; /* of the message being handled */
        uint32_t sender = 0;
    };
    std::string why_aborted(const State &state) const;

    std::map<uint32_t, State> states;
    using Answer = std::pair<uint64_t, uint32_t>; /* to which election start, of which node */
    std::set<Answer> refused_answers;
    std::map<Answer, std::string> doubtful_answers;
};

} // namespace sim
