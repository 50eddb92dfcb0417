#include "keeper/policy/runner.h"

#include "keeper/policy/known.h"

#include <sys/wait.h>

namespace keeper {

static std::string file_name(const std::string &path) {
    return path.substr(path.rfind('/') + 1);
}

void Runner::reset(bool ran_before, Time now) {
    const auto [failed, began] = std::pair(failures, sequences);
    *this = {};
    failures = failed;
    sequences = began;
    steps = {.phase = ran_before ? Phase::unknown : Phase::none, .since = now};
}

void Runner::follow_unit(UnitChanged::StopSteps stop_steps, Time now) {
    using enum UnitChanged::StopSteps;
    const Phase phase = stop_steps == running  ? Phase::stopping
                        : stop_steps == done   ? Phase::stopped
                        : stop_steps == failed ? Phase::stop_failed
                                               : Phase::unknown;
    steps = {.phase = phase, .since = phase == steps.phase ? steps.since : now};
}

void Runner::begin(bool as_start, Time now) {
    reset(false, now);
    ++sequences;
    steps.phase = Phase::running;
    start = as_start;
}

/* A keeper that comes into a running sequence does not know that it runs: what it took for the
   beginning of one waits then. */
void Runner::follow_step(const std::string &step, const std::string &action, bool begins,
                         Time now) {
    const bool as_start = action == "start";
    if (!running() || as_start != start || (!begins && !begun.contains(step))) {
        const std::optional<bool> waits = running() ? std::optional(start) : std::nullopt;
        begin(as_start, now);
        pending = waits;
        partial = true;
    }
    begun.insert(step);
    steps.step = begins ? file_name(step) : "";
    steps.since = begins ? now : steps.since;
}

std::optional<SequenceEnd> Runner::follow(const Input &input, NodeId local, Time now) {
    const auto *announced = std::get_if<Announced>(&input);
    const auto *read = std::get_if<RunDirectoryRead>(&input);
    if (announced != nullptr) {
        if (const auto *applied = std::get_if<NewMaster>(&announced->announcement)) {
            const bool as_start = applied->node == local;
            running() ? void(pending = as_start) : begin(as_start, now);
        } else if (const auto *b = std::get_if<client::StepBegin>(&announced->announcement)) {
            follow_step(b->step, b->action, true, now);
        } else if (const auto *e = std::get_if<client::StepEnd>(&announced->announcement)) {
            follow_step(e->step, e->action, false, now);
            failures += e->wait_status != 0 ? 1 : 0;
            if (e->wait_status != 0 && failed_step.empty()) {
                failed_step = file_name(e->step);
                failed_status = e->wait_status;
            }
        } else if (const auto *d = std::get_if<client::StepsDone>(&announced->announcement)) {
            errors = d->failed;
        }
    } else if (read != nullptr) {
        directory = read->steps;
    }
    return running() && errors && (partial || directory) ? std::optional(end(now)) : std::nullopt;
}

SequenceEnd Runner::end(Time now) {
    SequenceEnd result{.start = start, .known = !partial, .failed = {}};
    Steps after{.phase = partial ? Phase::unknown : Phase::settled, .since = now};
    /* The daemon skips a step that it cannot run, and counts no error. */
    for (const std::string &step : directory.value_or(std::vector<std::string>())) {
        if (!partial && !begun.contains(step)) {
            ++failures;
            after.phase = Phase::not_runnable;
            after.step = file_name(step);
            result.failed = after.step + " cannot be run";
        }
    }
    if (!failed_step.empty() || *errors > 0) {
        after = {
            .phase = Phase::failed, .step = failed_step, .status = failed_status, .since = now};
        const int status = failed_status;
        result.failed =
            (failed_step.empty() ? "a step" : failed_step) +
            (WIFSIGNALED(status) ? " was killed by signal " + std::to_string(WTERMSIG(status))
                                 : " failed with status " + std::to_string(WEXITSTATUS(status)));
    }
    const std::optional<bool> next = pending;
    reset(false, now);
    steps = after;
    if (next) {
        begin(*next, now);
    }
    return result;
}

} // namespace keeper
