#include "ctl/ask/request.h"
#include "ctl/commands/commands.h"
#include "ctl/print/text.h"

#include <algorithm>

#include "base/paths.h"

namespace ctl {

namespace {

/* Without the blanks around it, which the daemon would not keep over a restart. */
std::string trimmed(const std::string &text) {
    g_autofree char *copy = g_strdup(text.c_str());
    return g_strstrip(copy);
}

constexpr size_t max_reason = 1000;

} // namespace

int command_freeze(const Options &options) {
    const std::string reason = trimmed(options.text);
    if (reason.empty()) {
        throw WrongLine{options.command,
                        "freeze needs a REASON: whoever finds the freeze reads it"};
    }
    /* The daemon stores the reason as a line. */
    if (std::ranges::any_of(reason, [](unsigned char c) { return c < ' ' || c == 0x7f; })) {
        throw WrongLine{options.command, "the REASON must be one line of plain text"};
    }
    /* Every node stores it, and repeats it in its log and to the others at each join. */
    if (reason.size() > max_reason) {
        throw WrongLine{options.command, "the REASON is too long, at most " +
                                             std::to_string(max_reason) + " bytes are of use"};
    }
    Request request;
    request.name = "freeze";
    /* With no master the daemon would take it for a lift of the freeze. */
    request.objection = [](const client::Snapshot &before) -> std::string {
        return before.master_node != 0 ? ""
                                       : "no master is known that mastership could be frozen to\n"
                                         "Next: duskvalectl wait stable";
    };
    request.call = client::freeze(reason);
    request.asked = [&reason](const client::Snapshot &before) {
        return "asked to freeze mastership to " + node_text(before.master_node) +
               (before.is_master ? ", this node: " : ": ") + reason;
    };
    request.effect = [&reason](const client::Announcement &announcement, const client::Snapshot &) {
        const auto *frozen = std::get_if<client::FrozenMaster>(&announcement);
        return frozen != nullptr && frozen->node != 0 && frozen->reason == reason;
    };
    request.stored_in = DUSKVALE_FROZEN_MASTER_FILE;
    request.is_stored = [&reason](const StoredSetting &stored) {
        return stored.value() != 0 && stored.text == reason;
    };
    request.holds = [&reason](const client::Snapshot &now) {
        return now.frozen_node != 0 && now.frozen_reason == reason;
    };
    return carry_out(request, options.wait);
}

} // namespace ctl
