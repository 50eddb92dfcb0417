#include "ctl/history/sentence.h"

#include "client/overloaded.h"

namespace ctl {

namespace {

std::string left_text(Reason reason, const std::string &node) {
    return reason == Reason::process_gone ? "the daemon of " + node + " ended"
           : reason == Reason::node_down  ? node + " went down, was cut off or lost its corosync"
                                          : node + " left";
}

std::string step_text(const std::string &step, const std::string &action) {
    return "step " + file_name(step) + " " + printable(action);
}

std::string hotplug_text(const client::Hotplug &device) {
    return std::string(": device ") + (device.added ? "added" : "removed") +
           (device.hardware_id.empty() ? "" : " " + printable(device.hardware_id)) +
           (device.location.empty() ? "" : " at " + printable(device.location)) + " (" +
           printable(device.devpath) + "), " + counted(device.devices, "device") + " now";
}

/* `members` are in the group now. */
Wording say_group(const char *word, const std::string &text, Colour colour, NodeId node,
                  uint32_t members) {
    return say(word, text + (members != 0 ? ", " + counted(members, "member") + " now" : ""),
               colour,
               {{"node", json_node(node)}, {"members", members != 0 ? Json(members) : Json()}});
}

} // namespace

std::string name_of(NodeId node, NodeId local) {
    return node_text(node) + (node == local && node != 0 ? " (this node)" : "");
}

Wording wording(const Event &event, NodeId local) {
    using enum Colour;
    const auto name = [local](NodeId node) { return name_of(node, local); };
    const auto frozen = [&](NodeId node, const std::string &reason) {
        return (node != 0 ? "mastership is frozen to " + name(node) : "mastership is not frozen") +
               (reason.empty() ? "" : ": " + printable(reason));
    };
    const auto node = [](NodeId id) { return Json{{"node", json_node(id)}}; };
    const auto visitor = client::Overloaded{
        [](const DaemonStarted &) { return say("daemon-started", "this node's daemon started"); },
        [](const LocalNode &e) { return say("local-node", "this node is " + node_text(e.node)); },
        [](const DaemonEnded &e) {
            return say("daemon-ended", "this node's daemon " + e.how, bad);
        },
        [](const OperatorRequest &e) {
            return say("request", printable(e.user + " asked this node: duskvalectl " + e.command));
        },
        [](const KeeperLine &e) { return say("keeper", "keeper: " + printable(e.text)); },
        [](const GroupChanged &) { return say("group-changed", "the group has changed"); },
        [&](const Joined &e) {
            const bool apart = e.reason == Reason::node_up;
            const char *how = apart ? " is in reach again; its daemon had been running" : " joined";
            return say_group("joined", name(e.node) + how, plain, e.node, e.members);
        },
        [&](const Left &e) {
            return say_group("left", left_text(e.reason, name(e.node)), doubtful, e.node,
                             e.members);
        },
        [&](const StayedFrozen &e) {
            const std::string how = e.how == "LEFT" ? " left" : " joined";
            return say("stayed-frozen",
                       name(e.node) + how + "; no election: " + frozen(e.frozen, ""));
        },
        [&](const ElectionEnded &e) {
            const std::string how = e.how == "stays" ? "the election kept " : "the election chose ";
            return say("election-ended", how + name(e.winner), plain, node(e.winner));
        },
        [&](const NewMaster &e) {
            return say("new-master", name(e.node) + " is master", good, node(e.node));
        },
        [&](const FrozenMaster &e) {
            const std::string sender = e.sender != 0 ? name(e.sender) + " reports: " : "";
            return say("frozen-master", sender + frozen(e.node, e.reason), doubtful,
                       {{"node", json_node(e.node)}, {"reason", e.reason}});
        },
        [&](const GaveBack &e) {
            return say("give-back", name(e.sender) + " was asked to give mastership back");
        },
        [&](const MastersDisagree &e) {
            const std::string who = e.sender == local ? "this node's late answer" : name(e.sender);
            const std::string both = who + " named " + name(e.there) +
                                     " as master where this node named " + name(e.here);
            return say("masters-disagree", both + ", and this node's daemon ended itself", bad);
        },
        [](const Remark &e) { return say("remark", printable(e.text), e.trouble ? bad : plain); },
        [](const client::StepBegin &e) {
            return say("step-begin", step_text(e.step, e.action) + " began", plain,
                       {{"step", e.step}, {"action", e.action}});
        },
        [](const client::StepEnd &e) {
            const std::string fault = wait_status_text(e.wait_status);
            const std::string how = fault.empty() ? " ended" : " FAILED: " + fault;
            return say("step-end", step_text(e.step, e.action) + how, fault.empty() ? plain : bad,
                       {{"step", e.step}, {"action", e.action}, {"wait_status", e.wait_status}});
        },
        [](const client::StepsDone &e) {
            const std::string failed = ", " + std::to_string(e.failed) + " FAILED";
            return say("steps-done", "run steps done" + (e.failed != 0 ? failed : ""),
                       e.failed != 0 ? bad : plain, {{"failed", e.failed}});
        },
        [&](const client::Hotplug &e) {
            return say("hotplug", name(e.node) + hotplug_text(e), plain,
                       {{"node", json_node(e.node)},
                        {"devices", e.devices},
                        {"added", e.added},
                        {"hardware_id", e.hardware_id},
                        {"location", e.location},
                        {"devpath", e.devpath}});
        },
        [&](const client::KeepAlive &e) {
            return say("keep-alive", "keep-alive from " + name(e.node), plain, node(e.node));
        },
        [](const client::Text &e) {
            return say("message", "message: " + printable(e.text), plain, {{"text", e.text}});
        },
    };
    return std::visit(visitor, event);
}

bool print_wording(int64_t time, const Wording &words, bool json) {
    if (!json) {
        return print_line(date_clock_text(time) + "  " + paint(words.colour, words.text));
    }
    Json line = {{"time", iso_text(time)}, {"event", words.word}};
    line.update(words.values);
    line["sentence"] = words.text;
    return print_line(json_line(line));
}

} // namespace ctl
