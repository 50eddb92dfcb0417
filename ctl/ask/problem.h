/* Why the daemon could not be asked: states of their own, each with the next thing to try. */
#pragma once

#include <gio/gio.h>

#include <string>
#include <utility>
#include <variant>

namespace ctl {

enum class ProblemKind {
    daemon_not_running,
    no_corosync, /* the daemon is not running because it could not be */
    bus_unreachable,
    not_permitted,
    no_answer,
    failed,
};

struct Problem {
    ProblemKind kind = ProblemKind::failed;
    std::string detail; /* what was reported, for the cases where it helps; may be empty */

    /* The daemon may yet come: whoever can wait goes on. */
    bool is_absence() const {
        return kind == ProblemKind::daemon_not_running || kind == ProblemKind::no_corosync;
    }
    /* It says nothing of the daemon. */
    bool is_of_bus() const {
        return kind == ProblemKind::bus_unreachable || kind == ProblemKind::not_permitted;
    }
};

struct ProblemSpec {
    ProblemKind kind;
    int exit_status;
    const char *word; /* stable, for programs, such as "daemon-not-running" */
    const char *text;
    const char *advice; /* what to try next, in a line */
};

const ProblemSpec &spec_of(const Problem &problem);
/* What is wrong, in a line. */
std::string problem_text(const Problem &problem);
/* Writes the text and the advice on standard error; returns the exit status. */
int report(const Problem &problem);

/* What a failed call on the bus means. Looks for corosync when the daemon is not there. */
Problem classify_call(const GError *error);
/* What a failed connection to the bus means. */
Problem classify_connection(const GError *error);
/* The daemon's name has no owner: says whether corosync, without which it cannot run, is there. */
Problem daemon_absent();

/* The bus closed the connection. */
Problem bus_closed();

/* A value, or why there is none. value() throws the Problem, for callers that cannot go on without
   the value: duskvalectl then ends with report(). */
template <typename T>
class Result {
public:
    Result(T value) : content(std::move(value)) {}
    Result(Problem problem) : content(std::move(problem)) {}
    explicit operator bool() const { return content.index() == 0; }
    T &operator*() { return std::get<0>(content); }
    const T &operator*() const { return std::get<0>(content); }
    const T *operator->() const { return &std::get<0>(content); }
    T value() && { return *this ? std::get<0>(std::move(content)) : throw problem(); }
    const Problem &problem() const { return std::get<1>(content); }

private:
    std::variant<T, Problem> content;
};

} // namespace ctl
