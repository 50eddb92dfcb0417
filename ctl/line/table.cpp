#include "ctl/line/table.h"

#include "ctl/commands/commands.h"
#include "ctl/line/arguments.h"

namespace ctl {

namespace {

/* In the order of the help: what is asked most comes first. */
const Command command_table[] = {
    {"status",
     "who is master, and how this node stands (the default)",
     command_status,
     {take_json}},
    {"why",
     "why mastership moved the last time, from the daemon's log",
     command_why,
     {take_json, take_log, take_since}},
    {"history",
     "all that the daemon's log tells, newest last",
     command_history,
     {take_json, take_last, take_log, take_since}},
    {"monitor", "what happens from now on, a line each", command_monitor, {take_json}},
    {"take-over", "make this node the master", command_take_over, {take_wait}},
    {"give-back", "hand mastership from this node to another", command_give_back, {take_wait}},
    {"freeze", "hold mastership where it is now", command_freeze, {take_reason, take_wait}},
    {"unfreeze", "let mastership move again (starts an election)", command_unfreeze, {take_wait}},
    {"prefer",
     "mark this node as preferred master, or no longer",
     command_prefer,
     {take_on_or_off, take_wait}},
    {"wait",
     "wait for this node's role, or for a settled cluster",
     command_wait,
     {take_state, take_timeout}},
    {"check",
     "one line and a status for a monitoring system",
     command_check,
     {take_members},
     CheckExit::unknown},
    {"doctor",
     "look over the whole node, and say what to do",
     command_doctor,
     {take_json},
     CheckExit::unknown},
    {"metrics", "figures in the OpenMetrics text format", command_metrics},
    {"send", "show a text on every node that monitors", command_send, {take_text}},
    {"keep-alive", "send a sign of life to every node that monitors", command_keep_alive},
    {"hotplug",
     "report a device of this node to the daemon",
     command_hotplug,
     {take_change, take_devpath}},
    {"help", "this text, or that of one command", nullptr, {take_topic}},
};

constexpr ExitSpec exit_table[] = {
    {Exit::ok, "done"},
    {Exit::failed, "failed: a run step failed, or another took over, or as the message says"},
    {Exit::usage, "usage: the command line is wrong"},
    {Exit::refused, "refused: the request cannot be granted now; the message says why"},
    {Exit::not_running, "the daemon is not running"},
    {Exit::timed_out, "timed out"},
    {Exit::not_permitted, "not permitted by the policy of the bus"},
    {Exit::bus_unreachable, "the system bus cannot be reached"},
    {Exit::no_corosync, "the daemon is not running, and neither is corosync"},
};

} // namespace

std::span<const Command> commands() {
    return command_table;
}

std::span<const ExitSpec> exit_statuses() {
    return exit_table;
}

} // namespace ctl
