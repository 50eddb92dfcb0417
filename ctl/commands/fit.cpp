#include "ctl/ask/request.h"
#include "ctl/commands/commands.h"

namespace ctl {

int command_fit(const Options &) {
    Bus bus;
    if (const std::optional<Problem> problem = bus.connect()) {
        return report(*problem);
    }
    return ask_keeper(bus, "fit", client::keeper_fit(),
                      "nothing: without a keeper no node is marked unfit");
}

} // namespace ctl
