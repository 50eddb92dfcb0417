#include "ctl/log/tell-event.h"

#include "ctl/ask/describe.h"

namespace ctl {

namespace {

std::string node(int64_t printed) {
    return node_text(static_cast<uint32_t>(printed));
}

std::string freeze_text(const Event &event) {
    return "frozen to " + node(event.frozen) +
           (event.text.empty() ? "" : ": " + printable(event.text));
}

std::string device_text(const Event &event) {
    const bool added = event.word == "ADDED";
    return node(event.sender) + ": device " + (added ? "added " : "removed ") +
           printable(event.more) + (event.more.empty() ? "" : " ") + "(" + printable(event.text) +
           "), " + std::to_string(event.count) + " now";
}

std::string left_text(const Event &event) {
    const bool lost = static_cast<uint32_t>(event.node) == static_cast<uint32_t>(event.frozen);
    return node(event.node) + " left; no election, since mastership is " +
           (lost ? "frozen to it: nobody is master now" : freeze_text(event));
}

std::string life_text(const Event &event) {
    switch (event.kind) {
    case EventKind::starting:
        return "this node's daemon started";
    case EventKind::registered:
        return "it joined the group and answers on the bus";
    case EventKind::got_signal:
        return "it was told to stop, by signal " + std::to_string(event.status);
    case EventKind::ending:
        return "it ended";
    case EventKind::process_ended:
        return "its process ended: " + printable(event.word) + ", " + printable(event.text);
    case EventKind::start_failed:
        return "the daemon could not join the group: is corosync running?";
    case EventKind::name_taken:
        return "the daemon could not go on the bus: is another one running, or the bus's policy "
               "missing?";
    case EventKind::split_brain:
        return "SPLIT BRAIN: the master was " + node(event.node) + " for this node and " +
               node(event.frozen) + " for " + node(event.sender) +
               "; the daemon ended itself, so that all elect anew";
    case EventKind::corosync_gone:
        return "corosync is gone, and the daemon ended with it";
    case EventKind::unit_stopping:
        return "its unit ran the steps with stop" + printable(event.word);
    case EventKind::unit_step:
        return file_name(event.text) + " stop";
    case EventKind::unit_step_failed:
        return file_name(event.text) + " stop FAILED: exited with status " +
               std::to_string(event.status);
    case EventKind::unit_step_late:
        return file_name(event.text) + " stop FAILED: ended after " + std::to_string(event.count) +
               " s";
    case EventKind::unit_stopped:
        return event.count == 0 ? "run steps done"
                                : "run steps done, " + std::to_string(event.count) + " FAILED";
    case EventKind::unit_waiting:
        return "its unit waits for corosync to form its ring, for at most " +
               std::to_string(event.count) + " s: " + printable(event.text);
    case EventKind::unit_waited:
        return "its unit waited for " + std::to_string(event.count) +
               " s: " + printable(event.text);
    default:
        return "the system bus closed the connection, and the daemon ended";
    }
}

std::string mastership_text(const Event &event) {
    switch (event.kind) {
    case EventKind::election_called:
        return "this node called an election";
    case EventKind::election_void:
        return "the election had no proposal and was started again";
    case EventKind::election_stays:
        return "the election kept " + node(event.node);
    case EventKind::election_mine:
        return "the election chose " + node(event.node) + ", this node";
    case EventKind::election_other:
        return "the election chose " + node(event.node);
    case EventKind::became_master:
        return node(event.node) + ", this node, is master, with counter " +
               std::to_string(event.counter);
    case EventKind::became_slave:
        return node(event.node) + " is master, with counter " + std::to_string(event.counter) +
               "; this node had " + std::to_string(event.local_counter);
    case EventKind::giveback_void:
        return node(event.sender) + " gave mastership back, but no master was known";
    case EventKind::giveback_own:
        return "this node, " + node(event.sender) + ", gave mastership back";
    case EventKind::giveback_kept:
        return node(event.sender) + " gave mastership back, but " + node(event.node) +
               ", this node, is the master and kept it";
    default:
        return node(event.sender) + " gave mastership back, and " + node(event.node) +
               ", this node, takes it";
    }
}

std::string refusal_text(const Event &event) {
    const std::string what =
        "a " + (event.word == "set-freeze" ? "change of the freeze" : printable(event.word)) +
        " was refused: ";
    return event.kind == EventKind::refused_frozen
               ? what + "mastership is frozen to " + node(event.frozen)
               : what + "only " + counted(static_cast<uint64_t>(event.count), "node") +
                     " in the group";
}

} // namespace

std::string event_text(const Event &event) {
    if (about_daemon(event.kind)) {
        return life_text(event);
    }
    switch (event.kind) {
    case EventKind::joined:
        return node(event.node) + " joined, " +
               counted(static_cast<uint64_t>(event.count), "member") + " now";
    case EventKind::left:
        return node(event.node) + " left, " +
               counted(static_cast<uint64_t>(event.count), "member") + " now";
    case EventKind::joined_frozen:
        return node(event.node) + " joined; no election, since mastership is " + freeze_text(event);
    case EventKind::left_frozen:
        return left_text(event);
    case EventKind::frozen_here:
    case EventKind::frozen_elsewhere:
        return node(event.sender) + " says that mastership is " + freeze_text(event);
    case EventKind::unfrozen:
        return node(event.sender) + " says that nothing is frozen";
    case EventKind::prefer_frozen:
        return std::string("this node is ") + (event.count != 0 ? "preferred" : "not preferred") +
               " as master from now on; no election, since mastership is " + freeze_text(event);
    case EventKind::proposal:
    case EventKind::proposal_first:
        return node(event.node) + " proposed counter " + std::to_string(event.counter);
    case EventKind::take_over_from:
        return node(event.node) + " says that it is master";
    case EventKind::refused_frozen:
    case EventKind::refused_alone:
        return refusal_text(event);
    case EventKind::step_started:
        return file_name(event.text) + (event.role != 0 ? " start" : " stop") + " began";
    case EventKind::step_ended:
        return file_name(event.text) + (event.role != 0 ? " start" : " stop") +
               (event.status == 0
                    ? " ended"
                    : " FAILED: " + describe_wait_status(static_cast<int>(event.status)));
    case EventKind::step_late:
        return "the step with process " + std::to_string(event.child) +
               " ran for too long and was told to end";
    case EventKind::step_not_run:
        return "a step could not be run: " + printable(event.text);
    case EventKind::steps_done:
        return event.count == 0 ? "run steps done"
                                : "run steps done, " + std::to_string(event.count) + " FAILED";
    case EventKind::run_remembered:
        return "run steps wait for those that still run";
    case EventKind::run_pending:
        return "run steps that waited begin";
    case EventKind::device:
        return device_text(event);
    case EventKind::send_failed:
        return "corosync refused a multicast of this node; it is not sent again";
    case EventKind::bad_message:
        return node(event.sender) + " sent a message that this version does not know (type " +
               std::to_string(event.status) + ", " +
               counted(static_cast<uint64_t>(event.count), "byte") + ")";
    case EventKind::error:
        return "error: " + printable(event.text);
    default:
        return mastership_text(event);
    }
}

Colour event_colour(const Event &event) {
    switch (event.kind) {
    case EventKind::split_brain:
    case EventKind::corosync_gone:
    case EventKind::bus_lost:
    case EventKind::process_ended:
    case EventKind::start_failed:
    case EventKind::name_taken:
    case EventKind::send_failed:
    case EventKind::bad_message:
    case EventKind::step_late:
    case EventKind::step_not_run:
    case EventKind::unit_step_failed:
    case EventKind::unit_step_late:
    case EventKind::error:
        return Colour::bad;
    case EventKind::step_ended:
        return event.status == 0 ? Colour::plain : Colour::bad;
    case EventKind::steps_done:
    case EventKind::unit_stopped:
        return event.count == 0 ? Colour::plain : Colour::bad;
    case EventKind::left_frozen:
        return event.node == event.frozen ? Colour::bad : Colour::doubtful;
    case EventKind::left:
    case EventKind::frozen_here:
    case EventKind::frozen_elsewhere:
    case EventKind::refused_frozen:
    case EventKind::refused_alone:
        return Colour::doubtful;
    default:
        return Colour::plain;
    }
}

std::string step_text(const Step &step) {
    std::string text = file_name(step.path) + (step.starting ? " start" : " stop");
    if (!step.status) {
        return text + " began";
    }
    if (*step.status != 0) {
        text += " FAILED: " + describe_wait_status(static_cast<int>(*step.status));
    }
    if (step.began && step.ended) {
        text += ", " + duration_text(std::chrono::microseconds(*step.ended - *step.began));
    }
    return text;
}

} // namespace ctl
