#include "ctl/ask/request.h"
#include "ctl/commands/commands.h"
#include "ctl/print/text.h"

#include "base/paths.h"

namespace ctl {

int command_prefer(const Options &options) {
    const bool preferred = options.word == "on";
    Request request;
    /* The keeper keeps the operator's choice apart from what it writes itself to hold a master. */
    Bus bus;
    bus.connect();
    if (bus.read_keeper()) {
        return ask_keeper(bus, "prefer " + options.word, client::keeper_prefer(preferred),
                          ask_again);
    }
    request.name = "prefer " + options.word;
    request.call = client::set_preferred(preferred);
    request.asked = [preferred](const client::Snapshot &before) {
        return node_text(before.local_node) + ", this node, is " +
               (preferred ? "now preferred as master" : "no longer preferred as master") +
               (before.frozen_node != 0
                    ? "; no election: mastership is frozen to " + node_text(before.frozen_node)
                    : "; an election follows");
    };
    request.election = [](const client::Snapshot &before) { return before.frozen_node == 0; };
    request.stored_in = DUSKVALE_PREFERRED_MASTER_FILE;
    request.is_stored = [preferred](const StoredSetting &stored) {
        return (stored.value() != 0) == preferred;
    };
    request.holds = [preferred](const client::Snapshot &now) { return now.preferred == preferred; };
    return carry_out(request, options.wait);
}

} // namespace ctl
