/* What the daemon announces: a type for each signal of its object. */
#pragma once

#include "client/node-id.h"

#include <glib.h>

#include <cstdint>
#include <optional>
#include <string>
#include <variant>

namespace client {

/* A master was applied, perhaps the same one again. This node's run steps follow. */
struct NewMaster {
    NodeId node = 0;
    bool operator==(const NewMaster &) const = default;
};

/* Mastership was frozen to a node; or the freeze was lifted, then `node` is 0. */
struct FrozenMaster {
    NodeId node = 0;
    std::string reason;
    NodeId sender = 0; /* the node that reports it; the signal leaves it 0 */
    bool operator==(const FrozenMaster &) const = default;
};

/* Corosync's reasons for a change of the group. The signals do not name them. */
enum class Reason { unknown, joined, left, node_down, node_up, process_gone };

/* A node joined the group, or left it; `members` are in it now, 0 where that is not known. */
struct Joined {
    NodeId node = 0;
    uint32_t members = 0;
    Reason reason = Reason::unknown;
    bool operator==(const Joined &) const = default;
};
struct Left {
    NodeId node = 0;
    uint32_t members = 0;
    Reason reason = Reason::unknown;
    bool operator==(const Left &) const = default;
};

/* What KeepAlive and SendMessage of any node bring about on every node. The text does not name its
   sender. */
struct KeepAlive {
    NodeId node = 0;
    bool operator==(const KeepAlive &) const = default;
};
struct Text {
    std::string text;
    bool operator==(const Text &) const = default;
};

/* A device came or went on `node`, which has `devices` now. Without hardware id and location at a
   removal. */
struct Hotplug {
    NodeId node = 0;
    uint32_t devices = 0;
    bool added = false;
    std::string hardware_id;
    std::string location;
    std::string devpath;
    bool operator==(const Hotplug &) const = default;
};

/* A run step of this node, by its path; `action` is "start" (this node is master) or "stop". */
struct StepBegin {
    std::string step;
    std::string action;
    bool operator==(const StepBegin &) const = default;
};
struct StepEnd {
    std::string step;
    std::string action;
    int wait_status = 0; /* as of wait(2): 0 is success */
    bool operator==(const StepEnd &) const = default;
};

/* A sequence of this node's run steps is done; `failed` of them did not succeed. */
struct StepsDone {
    uint32_t failed = 0;
    bool operator==(const StepsDone &) const = default;
};

using Announcement = std::variant<NewMaster, FrozenMaster, Joined, Left, KeepAlive, Text, Hotplug,
                                  StepBegin, StepEnd, StepsDone>;

/* Reads a signal of the daemon's interface. No value for a signal that is not known here, or that
   has other arguments. */
std::optional<Announcement> read_announcement(const char *signal, GVariant *arguments);

} // namespace client
