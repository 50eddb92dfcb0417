#include "keeper/policy/policies.h"

#include <glib.h>

namespace keeper {

constexpr Duration with_a_join{1'000};

void Freeze::take(Turn &turn) {
    const Known &known = turn.known;
    const Value was_last =
        std::exchange(last, {known.current.frozen_node, known.current.frozen_reason});
    if (!known.ready) {
        *this = {};
    } else if (turn.get<Joined>() != nullptr) {
        before = before ? before : was_last;
        joined_at = known.now;
    } else if (turn.get<FrozenMaster>() != nullptr && !before) {
        warning.clear(); /* somebody has decided */
    }
    if (!before || !turn.due(joined_at + with_a_join)) {
        return;
    }
    const auto [node, reason] = *std::exchange(before, std::nullopt);
    if (Value(node, reason) == last) {
        return;
    }
    const std::string was =
        node != 0 ? "frozen to " + known.name(node) + " (" + reason + ")" : "not frozen";
    /* The command that makes it what it was; a freeze is to the master of the moment. */
    std::string command = last.first != 0 ? "duskvalectl unfreeze" : "";
    if (node != 0) {
        g_autofree char *quoted = g_shell_quote(reason.c_str());
        command += command.empty() ? "" : " && ";
        command += node != known.current.master_node
                       ? "duskvalectl move --wait " + std::to_string(node) + " && "
                       : "";
        command += std::string("duskvalectl freeze ") + quoted;
    }
    warning = "a join changed the freeze: mastership was " + was + ", and now " +
              (last.first != 0 ? known.frozen_text() : "it is not frozen") +
              "; to undo that: " + command;
    turn.warn("FREEZE: " + warning);
}

} // namespace keeper
