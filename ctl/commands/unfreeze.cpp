#include "ctl/ask/request.h"
#include "ctl/commands/commands.h"
#include "ctl/print/text.h"
#include "ctl/program.h"

#include "base/paths.h"

#include <unistd.h>

#include <cstdio>

namespace ctl {

namespace {

/* The run steps of the node are stopped first, each for at most 240 s. */
constexpr int stop_limit_s = 900;
/* Without the file the daemon starts unfrozen. */
constexpr const char *without_freeze =
    "systemctl stop " DUSKVALE_IDENT " && rm -f " DUSKVALE_FROZEN_MASTER_FILE
    " && systemctl start " DUSKVALE_IDENT;

bool confirmed() {
    std::fputs("The daemon of this node is stopped, the freeze removed, and the daemon started: it "
               "becomes master.\nA node that is only cut off may still serve. Are all other nodes "
               "off? [y/N] ",
               stderr);
    return std::getchar() == 'y';
}

/* A lone daemon refuses to lift a freeze, since it cannot know whether it is the one that was cut
   off. */
int unfreeze_alone(const Options &options) {
    Bus bus;
    const client::Snapshot now = open_daemon(bus).value();
    if (now.frozen_node == 0) {
        return complain(Exit::failed, "mastership is not frozen\nNext: duskvalectl status");
    }
    if (now.members > 1) {
        return complain(Exit::failed, "this node is not alone: " +
                                          counted(static_cast<uint64_t>(now.members), "member") +
                                          "\nNext: duskvalectl unfreeze");
    }
    if (!options.yes && isatty(STDIN_FILENO) == 0) {
        return complain(Exit::failed, "--alone has to ask whether all other nodes are off\n"
                                      "Next: when they are, duskvalectl unfreeze --alone --yes");
    }
    if (!options.yes && !confirmed()) {
        return complain(Exit::failed, "nothing was changed");
    }
    const ProgramAnswer answer = ask_program({"sh", "-c", without_freeze}, stop_limit_s);
    if (answer.status != 0) {
        return complain(Exit::failed, answer.err + "\nNext: systemctl status " DUSKVALE_IDENT);
    }
    print_line("the freeze is removed; this node elects itself within a second");
    return Exit::ok;
}

} // namespace

int command_unfreeze(const Options &options) {
    if (options.alone) {
        return unfreeze_alone(options);
    }
    if (options.yes) {
        throw WrongLine{options.command, "--yes is for --alone"};
    }
    Request request;
    request.name = "unfreeze";
    request.call = client::unfreeze();
    request.asked = [](const client::Snapshot &before) {
        return before.frozen_node != 0
                   ? "asked to lift the freeze to " + node_text(before.frozen_node) +
                         "; an election follows"
                   : std::string("asked to lift a freeze, though this node knows of none; an "
                                 "election follows");
    };
    request.effect = [](const client::Announcement &announcement, const client::Snapshot &) {
        const auto *frozen = std::get_if<client::FrozenMaster>(&announcement);
        return frozen != nullptr && frozen->node == 0;
    };
    request.stored_in = DUSKVALE_FROZEN_MASTER_FILE;
    request.is_stored = [](const StoredSetting &stored) { return stored.value() == 0; };
    request.election = [](const client::Snapshot &) { return true; };
    request.holds = [](const client::Snapshot &now) { return now.frozen_node == 0; };
    return carry_out(request, options.wait);
}

} // namespace ctl
