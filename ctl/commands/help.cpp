#include "ctl/line/help.h"

#include "ctl/commands/commands.h"
#include "ctl/print/text.h"

namespace ctl {

int command_help(const Arguments &arguments) {
    if (arguments.positional.empty()) {
        print(help_text());
        return static_cast<int>(Exit::ok);
    }
    const CommandSpec *command = find_command(arguments.positional.front().c_str());
    if (command == nullptr) {
        return unknown_command(arguments.positional.front());
    }
    print(command_help_text(*command));
    return static_cast<int>(Exit::ok);
}

} // namespace ctl
