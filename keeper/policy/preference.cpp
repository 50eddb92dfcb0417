#include "keeper/policy/policies.h"

namespace keeper {

void take_preference(Turn &turn) {
    Known &known = turn.known;
    if (const auto *asked = turn.asked(Asked::prefer)) {
        std::string text = asked->on ? "this node is the first choice of a hand-over"
                                     : "this node is not preferred any more";
        turn.info("PREFERENCE: " + text);
        known.stored.preferred = asked->on ? "true" : "false";
        turn.world.store(known.stored);
        if (!known.stay_off.empty() && known.ready) {
            text += "; the daemon has it, too, since stay does nothing: " + known.stay_off;
            turn.prefer(asked->on);
        }
        turn.world.answer(asked->call, true, text);
    } else if (turn.get<SnapshotRead>() != nullptr && known.stored.preferred.empty() &&
               known.disk_problem.empty()) {
        /* from before there was a keeper */
        known.stored.preferred = known.current.preferred ? "true" : "false";
        turn.world.store(known.stored);
    }
}

void take_settings(Turn &turn) {
    const client::Snapshot &now = turn.known.current;
    if (!turn.known.ready) {
        return;
    }
    Stored stored = turn.known.stored;
    const std::string frozen_node = std::to_string(static_cast<int32_t>(now.frozen_node));
    stored.preferred_file = now.preferred ? "1\n" : "0\n";
    stored.frozen_file = now.frozen_node != 0 ? frozen_node + "\n" + now.frozen_reason + "\n" : "";
    if (stored != turn.known.stored) {
        turn.known.stored = stored;
        turn.world.store(stored);
    }
}

} // namespace keeper
