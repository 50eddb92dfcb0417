#include "keeper/policy/policies.h"

namespace keeper {

void take_preference(Turn &turn) {
    const Known &known = turn.known;
    const Stored stored = known.stored;
    if (const auto *asked = turn.call<Asked::Prefer>()) {
        std::string text = asked->on ? "this node is the first choice of a hand-over"
                                     : "this node is not preferred any more";
        turn.info("PREFERENCE: " + text);
        turn.store(stored.unfit, asked->on);
        if (!known.stay_off.empty() && known.ready) {
            text += "; the daemon has it, too, since stay does nothing: " + known.stay_off;
            turn.prefer(asked->on);
        }
        turn.answer(true, text);
    } else if (turn.get<SnapshotRead>() != nullptr && !stored.preferred &&
               known.disk_problem.empty()) {
        turn.store(stored.unfit, known.current.preferred); /* from before there was a keeper */
    }
}

} // namespace keeper
