#include "ctl/ask/request.h"
#include "ctl/commands/commands.h"

namespace ctl {

int command_fit(const Options &) {
    Bus bus;
    bus.connect();
    return ask_keeper(bus, "fit", client::keeper_fit(),
                      "nothing: without a keeper no node is marked unfit");
}

} // namespace ctl
