#include "ctl/line/table.h"

#include "ctl/commands/commands.h"

#include <array>
#include <cstring>

namespace ctl {

namespace {

constexpr std::array json_only{Opt::json};
constexpr std::array wait_only{Opt::wait};
constexpr std::array timeout_only{Opt::timeout};
constexpr std::array members_only{Opt::members};
constexpr std::array why_options{Opt::json, Opt::log, Opt::since};
constexpr std::array history_options{Opt::json, Opt::last, Opt::log, Opt::since};

/* In the order of the help: what is asked most comes first. */
constexpr CommandSpec command_table[] = {
    {"status", "", 0, 0, json_only, "who is master, and how this node stands (the default)",
     command_status},
    {"why", "", 0, 0, why_options, "why mastership moved the last time, from the daemon's log",
     command_why},
    {"history", "", 0, 0, history_options, "all that the daemon's log tells, newest last",
     command_history},
    {"monitor", "", 0, 0, json_only, "what happens from now on, a line each", command_monitor},
    {"take-over", "", 0, 0, wait_only, "make this node the master", command_take_over},
    {"give-back", "", 0, 0, wait_only, "hand mastership from this node to another",
     command_give_back},
    {"freeze", "REASON", 1, 1, wait_only, "hold mastership where it is now", command_freeze},
    {"unfreeze", "", 0, 0, wait_only, "let mastership move again (starts an election)",
     command_unfreeze},
    {"prefer", "on|off", 1, 1, wait_only, "mark this node as preferred master, or no longer",
     command_prefer},
    {"wait", "master|slave|stable", 1, 1, timeout_only,
     "wait for this node's role, or for a settled cluster", command_wait},
    {"check", "", 0, 0, members_only, "one line and a status for a monitoring system",
     command_check},
    {"doctor", "", 0, 0, json_only, "look over the whole node, and say what to do", command_doctor},
    {"metrics", "", 0, 0, {}, "figures in the OpenMetrics text format", command_metrics},
    {"send", "TEXT", 1, 1, {}, "show a text on every node that monitors", command_send},
    {"keep-alive",
     "",
     0,
     0,
     {},
     "send a sign of life to every node that monitors",
     command_keep_alive},
    {"hotplug",
     "add|remove DEVPATH",
     2,
     2,
     {},
     "report a device of this node to the daemon",
     command_hotplug},
    {"help", "[COMMAND]", 0, 1, {}, "this text, or that of one command", command_help},
};

constexpr OptionSpec option_table[] = {
    {Opt::help, "help", Value::none, nullptr, "show the help"},
    {Opt::json, "json", Value::none, nullptr, "print JSON, with a schema number"},
    {Opt::last, "last", Value::required, "N", "show the last N episodes only"},
    {Opt::log, "log", Value::required, "FILE", "read this log, or - for standard input"},
    {Opt::members, "members", Value::required, "N", "warn when there are fewer members"},
    {Opt::since, "since", Value::required, "TIME", "read the journal from TIME on"},
    {Opt::timeout, "timeout", Value::required, "SECONDS", "give up after this time"},
    {Opt::version, "version", Value::none, nullptr, "show the version"},
    {Opt::wait, "wait", Value::optional, "SECONDS",
     "wait until it has taken effect (at most 300 s)"},
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

std::span<const CommandSpec> commands() {
    return command_table;
}

std::span<const OptionSpec> options() {
    return option_table;
}

std::span<const ExitSpec> exit_statuses() {
    return exit_table;
}

const CommandSpec *find_command(const char *name) {
    for (const CommandSpec &command : command_table) {
        if (std::strcmp(command.name, name) == 0) {
            return &command;
        }
    }
    return nullptr;
}

const OptionSpec &option(Opt id) {
    const OptionSpec *found = option_table;
    while (found->id != id) {
        found++;
    }
    return *found;
}

} // namespace ctl
