#include "oracle.h"

#include <algorithm>

namespace sim {

const std::string Oracle::crossed = "an answer crossed a take-over";
const std::string Oracle::unexplained = "unexplained";
/* "met" and "gap" end by themselves before the group is quiet. */
static const std::string met = "groups that were apart have met";
static const std::string frozen = "the membership changed while frozen";
static const std::string gap = "a period has ended and its winner's take-over is not delivered";

static bool contains(const std::string &line, const char *text) {
    return line.find(text) != std::string::npos;
}

void Oracle::delivered(const Node &node, const Event &event) {
    State &state = states[node.id];
    if (!event.message) {
        state.members = {event.members.begin(), event.members.end()};
        state.freeze_refused = false;
        for (const uint32_t id : event.left) {
            state.unanswered.erase(id);
        }
        if (node.bus.frozen_node != 0) {
            state.frozen_change = event.number;
            state.doubt = frozen;
        } else if (event.merge) {
            state.doubt = met;
        }
        return;
    }
    state.cause = event.cause;
    state.sender = event.sender;
    const char type = (*event.message)[0];
    if ((type == '1' || type == 'M') && event.frozen != node.bus.frozen_node) {
        state.loose = true;
    } else if (type == 'F' && node.bus.frozen_node == 0) {
        state.loose = node.timers.size() > 1; /* a period runs */
    }
    switch (type) {
    case '1':
        state.start = event.number;
        state.unanswered = state.members;
        state.blind = false;
        if (!state.doubt.empty()) {
            doubtful_answers[{event.number, node.id}] = state.doubt;
        }
        break;
    case 'P':
        if (event.cause == state.start) {
            state.unanswered.erase(event.sender);
        }
        break;
    case 'M':
        state.take_over = event.number;
        state.doubt.clear();
        break;
    default:
        break;
    }
}

void Oracle::refused(const Node &node, char type) {
    State &state = states[node.id];
    if (type == '1') {
        state.blind = true;
    } else if (type == 'P') {
        refused_answers.insert({node.handling, node.id});
    } else if (type == 'F') {
        state.freeze_refused = true;
    } else if (type == 'M' && contains(state.last_line, "that's me")) {
        state.doubt = "the winner's take-over was refused";
    }
}

void Oracle::logged(const Node &node, const std::string &line) {
    State &state = states[node.id];
    state.last_line = line;
    if (contains(line, "SPLIT BRAIN")) {
        ++aborts[why_aborted(state)];
    }
    if (!contains(line, "ELECTION-FINISHED")) {
        return;
    }
    const bool late =
        std::any_of(state.unanswered.begin(), state.unanswered.end(), [&](uint32_t id) {
            return refused_answers.count({state.start, id}) == 0;
        });
    const bool stays = contains(line, "stays");
    if (state.blind) {
        state.doubt = "a refused election start began a period on one node alone";
    } else if (late) {
        state.doubt = "a period ended before all answers had arrived";
    } else if (contains(line, "it should") && state.take_over > state.start) {
        state.doubt = "a take-over arrived before the end of a slower node's period";
    } else if (state.frozen_change > state.start) {
        state.doubt = frozen; /* the change started no election: this period knew the old members */
    } else {
        state.doubt = stays ? "" : gap;
    }
    state.blind = false;
}

void Oracle::applied(const Node &node, uint32_t master) {
    const client::Snapshot &before = node.bus;
    if (before.frozen_node != 0 && before.master_node != 0 && master != before.master_node &&
        master != before.frozen_node && !states[node.id].loose) {
        ++moved;
    }
}

std::string Oracle::why_aborted(const State &state) const {
    if (state.take_over > state.cause) {
        return crossed;
    }
    const auto answer = doubtful_answers.find({state.cause, state.sender});
    if (answer != doubtful_answers.end()) {
        return answer->second;
    }
    return state.doubt.empty() ? unexplained : state.doubt;
}

std::string Oracle::excuse(const Node &node) const {
    const std::string &doubt = states.at(node.id).doubt;
    return doubt == met || doubt == gap ? "" : doubt;
}

} // namespace sim
