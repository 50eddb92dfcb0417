#include "ctl/line/table.h"

#include "ctl/commands/commands.h"
#include "ctl/line/arguments.h"

namespace ctl {

namespace {

/* In the order of the help: what is asked most comes first. */
const Command command_table[] = {
    {"status",
     "show the master and the state of this node (the default)",
     command_status,
     {take_json}},
    {"why",
     "why mastership moved the last time, from the journal",
     command_why,
     {take_json, take_log, take_since}},
    {"history",
     "all events that the journal has, newest last",
     command_history,
     {take_json, take_last, take_log, take_since}},
    {"monitor", "what happens from now on, a line each", command_monitor, {take_json}},
    {"move",
     "make another node the master, by name or id; without one, the keeper chooses",
     command_move,
     {take_node, take_wait}},
    {"take-over", "make this node the master", command_take_over, {take_wait}},
    {"give-back", "hand mastership from this node to another", command_give_back, {take_wait}},
    {"freeze", "hold mastership where it is now", command_freeze, {take_reason, take_wait}},
    {"unfreeze",
     "let mastership move again (starts an election)",
     command_unfreeze,
     {take_alone, take_yes, take_wait}},
    {"prefer",
     "prefer this node as master, or stop preferring it",
     command_prefer,
     {take_on_or_off, take_wait}},
    {"fit", "say that this node, which the keeper found unfit, is repaired", command_fit},
    {"wait",
     "wait for a role of this node, or for a stable cluster",
     command_wait,
     {take_state, take_timeout}},
    {"check",
     "print one line and a status for a monitoring system",
     command_check,
     {take_members},
     CheckExit::unknown},
    {"doctor",
     "check the whole node, and say what to do",
     command_doctor,
     {take_json},
     CheckExit::unknown},
    {"metrics", "print figures in the OpenMetrics text format", command_metrics},
    {"send", "show a text wherever the cluster is monitored", command_send, {take_text}},
    {"keep-alive", "show a sign of life wherever the cluster is monitored", command_keep_alive},
    {"hotplug",
     "report a device of this node to the daemon",
     command_hotplug,
     {take_change, take_devpath}},
    {"help", "show this text, or the help of a command", nullptr, {take_topic}},
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
