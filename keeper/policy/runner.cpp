#include "keeper/policy/known.h"

#include <sys/wait.h>

namespace keeper {

static std::string file_name(const std::string &path) {
    return path.substr(path.rfind('/') + 1);
}

void Runner::reset(bool ran_before, Time now) {
    const uint64_t before = failures;
    *this = {};
    failures = before;
    steps = {.phase = ran_before ? Phase::unknown : Phase::none, .since = now};
}

void Runner::begin(Turn &turn, bool as_start) {
    reset(false, turn.known.now);
    steps.phase = Phase::running;
    start = as_start;
    turn.act(ReadRunDirectory{});
}

/* A keeper that comes into a running sequence does not know of it: what it took for the beginning
   of one waits then. */
void Runner::take_step(Turn &turn, const std::string &path, const std::string &action,
                       bool begins) {
    const bool as_start = action == "start";
    if (!running() || as_start != start || (!begins && !begun.contains(path))) {
        const auto waits = running() ? std::optional(start) : std::nullopt;
        begin(turn, as_start);
        pending = waits;
        partial = true;
    }
    begun.insert(path);
    steps.step = begins ? file_name(path) : "";
    steps.since = begins ? turn.known.now : steps.since;
}

void Runner::take(Turn &turn) {
    if (const auto *applied = turn.get<NewMaster>()) {
        const bool as_start = applied->node == turn.known.local;
        running() ? void(pending = as_start) : begin(turn, as_start);
    } else if (const auto *step = turn.get<client::StepBegin>()) {
        take_step(turn, step->step, step->action, true);
    } else if (const auto *ended = turn.get<client::StepEnd>()) {
        take_step(turn, ended->step, ended->action, false);
        failures += ended->wait_status != 0 ? 1 : 0;
        if (ended->wait_status != 0 && failed.phase != Phase::failed) {
            failed = {Phase::failed, file_name(ended->step), ended->wait_status};
        }
    } else if (const auto *done = turn.get<client::StepsDone>()) {
        errors = done->failed;
    } else if (const auto *read = turn.get<RunDirectoryRead>()) {
        directory = read->steps;
    }
    if (running() && errors && (partial || directory)) {
        end(turn);
    }
}

void Runner::end(Turn &turn) {
    SequenceEnd result{.start = start, .known = !partial, .failed = {}};
    Steps after{.phase = partial ? Phase::unknown : Phase::settled};
    if (failed.phase == Phase::failed) {
        after = failed;
        const int status = failed.status;
        result.failed =
            failed.step + (WIFSIGNALED(status)
                               ? " was killed by signal " + std::to_string(WTERMSIG(status))
                               : " failed with status " + std::to_string(WEXITSTATUS(status)));
    } else if (*errors > 0) {
        after.phase = Phase::failed;
        result.failed = "a step failed";
    } else if (!partial) {
        /* The daemon skips a step that it cannot run, and counts no error. */
        const auto skipped = std::ranges::find_if(
            *directory, [this](const std::string &path) { return !begun.contains(path); });
        if (skipped != directory->end()) {
            ++failures;
            after = {Phase::not_runnable, file_name(*skipped)};
            result.failed = after.step + " cannot be run";
        }
    }
    turn.end = result;
    const auto next = pending;
    reset(false, turn.known.now);
    steps = after;
    steps.since = turn.known.now;
    if (next) {
        begin(turn, *next);
    }
}

} // namespace keeper
