#include "ctl/ask/request.h"
#include "ctl/commands/commands.h"

namespace ctl {

int command_keep_alive(const Options &) {
    return send_call(client::keep_alive(),
                     "asked to show a sign of life of this node on every node");
}

} // namespace ctl
