#include "ctl/ask/request.h"
#include "ctl/commands/commands.h"

namespace ctl {

int command_send(const Options &options) {
    return send_call(client::send_message(options.text), "asked to show the text on every node");
}

} // namespace ctl
