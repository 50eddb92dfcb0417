#include "keeper/policy/policies.h"

#include <sys/wait.h>

namespace keeper {

static std::string file_name(const std::string &path) {
    return path.substr(path.rfind('/') + 1);
}

void Runner::begin(Turn &turn, bool as_start) {
    *this = {};
    start = as_start;
    turn.known.steps = {.phase = Phase::running, .since = turn.known.now};
    turn.world.read_run_directory();
}

/* A keeper that comes into a running sequence does not know of it: what it took for the beginning
   of one waits then. */
void Runner::step(Turn &turn, const std::string &path, const std::string &action, bool begins) {
    Known &known = turn.known;
    const bool as_start = action == "start";
    if (!known.running() || as_start != start || (!begins && !begun.contains(path))) {
        const auto waits = known.running() ? std::optional(start) : std::nullopt;
        begin(turn, as_start);
        pending = waits;
        partial = true;
    }
    begun.insert(path);
    known.steps.step = begins ? file_name(path) : "";
    known.steps.since = begins ? known.now : known.steps.since;
}

void Runner::take(Turn &turn) {
    Known &known = turn.known;
    if (turn.get<DaemonAppeared>() != nullptr) {
        *this = {};
        /* One that ran before the keeper may have run steps. */
        known.steps = {.phase = known.looked ? Phase::none : Phase::unknown, .since = known.now};
    } else if (const auto *applied = turn.get<NewMaster>()) {
        const bool as_start = applied->node == known.local;
        known.running() ? void(pending = as_start) : begin(turn, as_start);
    } else if (const auto *began = turn.get<StepBegin>()) {
        step(turn, began->step, began->action, true);
    } else if (const auto *ended = turn.get<StepEnd>()) {
        step(turn, ended->step, ended->action, false);
        known.failed_steps += ended->wait_status != 0 ? 1 : 0;
        if (ended->wait_status != 0 && failed.phase != Phase::failed) {
            failed = {Phase::failed, file_name(ended->step), ended->wait_status};
        }
    } else if (const auto *done = turn.get<StepsDone>()) {
        errors = done->failed;
    } else if (const auto *read = turn.get<RunDirectoryRead>()) {
        directory = read->steps;
    }
    if (known.running() && errors && (partial || directory)) {
        end(turn);
    }
}

void Runner::end(Turn &turn) {
    turn.end = SequenceEnd{.start = start, .known = !partial, .failed = {}};
    Steps after{.phase = partial ? Phase::unknown : Phase::settled};
    std::string &words = turn.end->failed;
    if (failed.phase == Phase::failed) {
        after = failed;
        words = failed.step +
                (WIFSIGNALED(failed.status)
                     ? " was killed by signal " + std::to_string(WTERMSIG(failed.status))
                     : " failed with status " + std::to_string(WEXITSTATUS(failed.status)));
    } else if (*errors > 0) {
        after.phase = Phase::failed;
        words = "a step failed";
    } else if (!partial) {
        /* The daemon skips a step that it cannot run, and counts no error. */
        const auto skipped = std::ranges::find_if(
            *directory, [this](const std::string &path) { return !begun.contains(path); });
        if (skipped != directory->end()) {
            ++turn.known.failed_steps;
            after = {Phase::not_runnable, file_name(*skipped)};
            words = after.step + " cannot be run";
        }
    }
    after.since = turn.known.now;
    turn.known.steps = after;
    if (const auto next = pending) {
        begin(turn, *next);
    } else {
        *this = {};
    }
}

} // namespace keeper
