/*
 * The one table of what duskvalectl understands. The command line is parsed by it, the help and the
 * completion are made from it, and scripts/check-docs compares the man page with it. A new
 * command is a row here and a file beside this one.
 */
#include "ctl/commands/commands.h"

namespace ctl {

namespace {

const Argument json = flag("--json", &Options::json, "print JSON, with a schema number");
const Argument log_file =
    text_option("--log", "=FILE", &Options::log,
                "read this output of journalctl -o json, or - for standard input");
const Argument since =
    text_option("--since", "=TIME", &Options::since, "read the journal from TIME on");
const Argument wait = wait_option();

/* In the order of the help: what is asked most comes first. */
const Command command_table[] = {
    {"status", "show the master and the state of this node (the default)", command_status, {json}},
    {"why",
     "explain the last change of master, from the journal",
     command_why,
     {json, log_file, since}},
    {"history",
     "list the events in the journal, newest last",
     command_history,
     {json, count_option("--last", &Options::last, "show the last N events only"), log_file,
      since}},
    {"monitor", "show events as they happen, one per line", command_monitor, {json}},
    {"move",
     "make another node the master, by name or id; without one, the keeper chooses",
     command_move,
     {text("NODE", &Options::text, false), wait}},
    {"take-over", "make this node the master", command_take_over, {wait}},
    {"give-back", "hand mastership from this node to another", command_give_back, {wait}},
    {"freeze",
     "keep mastership where it is",
     command_freeze,
     {text("REASON", &Options::text), wait}},
    {"unfreeze",
     "let mastership move again (starts an election)",
     command_unfreeze,
     {flag("--alone", &Options::alone,
           "on the only node left: restart its daemon without the freeze"),
      flag("--yes", &Options::yes, "with --alone: do not ask"), wait}},
    {"prefer",
     "prefer this node as master, or stop preferring it",
     command_prefer,
     {one_of("on|off", {"on", "off"}), wait}},
    {"fit", "remove the unfit mark of this node, once it is repaired", command_fit},
    {"wait",
     "wait for a role of this node, or for a stable cluster",
     command_wait,
     {one_of("master|slave|stable", {"master", "slave", "stable"}),
      seconds_option("--timeout", &Options::timeout, "give up after this time")}},
    {"check",
     "print one line and a status for a monitoring system",
     command_check,
     {count_option("--members", &Options::members, "warn when there are fewer members")},
     true},
    {"doctor", "examine this node, and say what to do", command_doctor, {json}, true},
    {"metrics", "print figures in the OpenMetrics text format", command_metrics},
    {"send",
     "send a text, which monitor shows on every node",
     command_send,
     {text("TEXT", &Options::text)}},
    {"keep-alive", "send a sign of life, which monitor shows on every node", command_keep_alive},
    {"hotplug",
     "report a device of this node to the daemon",
     command_hotplug,
     {one_of("add|remove", {"add", "remove"}), text("DEVPATH", &Options::devpath)}},
    {"help",
     "show this text, or the help of a command",
     nullptr,
     {text("COMMAND", &Options::text, false)}},
};

} // namespace

std::span<const Command> commands() {
    return command_table;
}

} // namespace ctl
