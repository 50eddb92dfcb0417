#include "ctl/ask/describe.h"

#include "client/overloaded.h"

#include <sys/wait.h>

#include <cstring>

namespace ctl {

using client::Overloaded;

namespace {

std::string describe_hotplug(const client::Hotplug &hotplug, const std::string &node) {
    std::string text = node + ": device " + (hotplug.added ? "added" : "removed");
    if (!hotplug.hardware_id.empty()) {
        text.append(" ").append(printable(hotplug.hardware_id));
    }
    if (!hotplug.location.empty()) {
        text.append(" at ").append(printable(hotplug.location));
    }
    return text + " (" + printable(hotplug.devpath) + "), " + counted(hotplug.devices, "device") +
           " now";
}

std::string step_text(const std::string &step, const std::string &action) {
    return "step " + file_name(step) + " " + printable(action);
}

Json json_announcement(const client::Announcement &announcement) {
    return std::visit(
        Overloaded{
            [](const client::NewMaster &a) -> Json {
                return {{"event", "new-master"}, {"node", json_node(a.node)}};
            },
            [](const client::FrozenMaster &a) -> Json {
                return {
                    {"event", "frozen-master"}, {"node", json_node(a.node)}, {"reason", a.reason}};
            },
            [](const client::Joined &a) -> Json {
                return {{"event", "joined"}, {"node", json_node(a.node)}, {"members", a.members}};
            },
            [](const client::Left &a) -> Json {
                return {{"event", "left"}, {"node", json_node(a.node)}, {"members", a.members}};
            },
            [](const client::KeepAlive &a) -> Json {
                return {{"event", "keep-alive"}, {"node", json_node(a.node)}};
            },
            [](const client::Text &a) -> Json {
                return {{"event", "message"}, {"text", a.text}};
            },
            [](const client::Hotplug &a) -> Json {
                return {{"event", "hotplug"},           {"node", json_node(a.node)},
                        {"devices", a.devices},         {"added", a.added},
                        {"hardware_id", a.hardware_id}, {"location", a.location},
                        {"devpath", a.devpath}};
            },
            [](const client::StepBegin &a) -> Json {
                return {{"event", "step-begin"}, {"step", a.step}, {"action", a.action}};
            },
            [](const client::StepEnd &a) -> Json {
                return {{"event", "step-end"},
                        {"step", a.step},
                        {"action", a.action},
                        {"wait_status", a.wait_status}};
            },
            [](const client::StepsDone &a) -> Json {
                return {{"event", "steps-done"}, {"failed", a.failed}};
            },
        },
        announcement);
}

} // namespace

std::string describe(const client::Announcement &announcement, client::NodeId local_node) {
    const auto node_of = [local_node](client::NodeId node) {
        return node_text(node) + (node == local_node && node != 0 ? " (this node)" : "");
    };
    return std::visit(
        Overloaded{
            [&](const client::NewMaster &a) { return node_of(a.node) + " is master"; },
            [&](const client::FrozenMaster &a) {
                return (a.node != 0 ? "mastership is frozen to " + node_of(a.node)
                                    : "mastership is not frozen") +
                       (a.reason.empty() ? "" : ": " + printable(a.reason));
            },
            [&](const client::Joined &a) {
                return node_of(a.node) + " joined, " + counted(a.members, "member") + " now";
            },
            [&](const client::Left &a) {
                return node_of(a.node) + " left, " + counted(a.members, "member") + " now";
            },
            [&](const client::KeepAlive &a) { return "keep-alive from " + node_of(a.node); },
            [&](const client::Text &a) { return "message: " + printable(a.text); },
            [&](const client::Hotplug &a) { return describe_hotplug(a, node_text(a.node)); },
            [&](const client::StepBegin &a) { return step_text(a.step, a.action) + " began"; },
            [&](const client::StepEnd &a) {
                return step_text(a.step, a.action) +
                       (a.wait_status == 0 ? " ended"
                                           : " FAILED: " + describe_wait_status(a.wait_status));
            },
            [&](const client::StepsDone &a) {
                return a.failed == 0 ? std::string("run steps done")
                                     : "run steps done, " + std::to_string(a.failed) + " FAILED";
            },
        },
        announcement);
}

std::string describe(const News &news, client::NodeId local_node) {
    return std::visit(
        Overloaded{
            [&](const client::Announcement &a) { return describe(a, local_node); },
            [](const DaemonAppeared &) -> std::string { return "the daemon is running"; },
            [](const DaemonVanished &) -> std::string {
                return "the daemon is not running, waiting for it";
            },
            [](const BusLost &) -> std::string { return "the system bus closed the connection"; },
            [](const OutputClosed &) -> std::string { return "nobody reads the output"; },
            [](const Interrupted &) -> std::string { return "interrupted"; },
        },
        news.content);
}

Colour colour_of(const News &news) {
    const client::Announcement *announcement = news.announcement();
    if (announcement == nullptr) {
        return news.is<DaemonVanished>() || news.is<BusLost>() ? Colour::bad : Colour::plain;
    }
    if (std::holds_alternative<client::NewMaster>(*announcement)) {
        return Colour::good;
    }
    if (std::holds_alternative<client::FrozenMaster>(*announcement) ||
        std::holds_alternative<client::Left>(*announcement)) {
        return Colour::doubtful;
    }
    const auto *end = std::get_if<client::StepEnd>(announcement);
    const auto *done = std::get_if<client::StepsDone>(announcement);
    const bool failed =
        (end != nullptr && end->wait_status != 0) || (done != nullptr && done->failed != 0);
    return failed ? Colour::bad : Colour::plain;
}

Json json_news(const News &news) {
    Json object = {{"time", iso_text(news.time)}};
    object.update(std::visit(Overloaded{
                                 [](const client::Announcement &a) { return json_announcement(a); },
                                 [](const DaemonAppeared &) -> Json {
                                     return {{"event", "daemon-appeared"}};
                                 },
                                 [](const DaemonVanished &) -> Json {
                                     return {{"event", "daemon-vanished"}};
                                 },
                                 [](const BusLost &) -> Json {
                                     return {{"event", "bus-lost"}};
                                 },
                                 [](const OutputClosed &) -> Json {
                                     return {{"event", "output-closed"}};
                                 },
                                 [](const Interrupted &) -> Json {
                                     return {{"event", "interrupted"}};
                                 },
                             },
                             news.content));
    return object;
}

std::string describe_wait_status(int status) {
    if (WIFEXITED(status)) {
        const int code = WEXITSTATUS(status);
        return code == 0 ? "" : "exited with status " + std::to_string(code);
    }
    if (WIFSIGNALED(status)) {
        const int number = WTERMSIG(status);
        return "killed by signal " + std::to_string(number) + " (" + strsignal(number) + ")";
    }
    return "wait status " + std::to_string(status);
}

} // namespace ctl
