/*
 * The daemon as its client sees it. Nothing here calls back: what the daemon announces is queued
 * and taken with next(), so that a command reads from top to bottom. A call's answer is taken in
 * its place among the announcements: what the daemon said before it answered is in the queue when
 * the call returns.
 */
#pragma once

#include "ctl/ask/news.h"
#include "ctl/ask/problem.h"

#include "client/call.h"
#include "client/handle.h"
#include "client/keeper.h"
#include "client/snapshot.h"

#include <gio/gio.h>

#include <deque>
#include <optional>
#include <vector>

namespace ctl {

/* A point of time on the monotonic clock, in microseconds; no value: never. */
using Deadline = std::optional<int64_t>;
Deadline after(double seconds);
bool passed(const Deadline &deadline);

/* What the keeper of this node knows, or why that is not known. */
struct KeeperView {
    std::optional<client::KeeperState> state;
    bool absent = false; /* no keeper runs on this node */
    std::string why_not; /* a clause without its full stop */

    explicit operator bool() const { return state.has_value(); }
    const client::KeeperState *operator->() const { return &*state; }
    const client::KeeperState &operator*() const { return *state; }
};

/* What became of a request to the keeper. */
struct KeeperAnswer {
    bool done = false;
    bool absent = false; /* no keeper runs on this node */
    std::string text;    /* what was done, or why not */
};

class Bus {
public:
    Bus() = default;
    Bus(const Bus &) = delete;
    Bus &operator=(const Bus &) = delete;
    ~Bus();

    /* Connects to the system bus; the daemon need not be there. Throws a Problem. */
    void connect();

    /* From now on, what the daemon announces, and its coming and going, is queued. */
    void listen();
    /* Queues OutputClosed when nobody reads standard output any more. */
    void watch_output();

    /* The daemon's state; a daemon that does not answer within 5 seconds is a problem. */
    Result<client::Snapshot> read();
    /* Makes one of the daemon's calls; false when the daemon refuses it, true also where it has no
       status to answer with. */
    Result<bool> ask(const client::Call &call);

    KeeperView read_keeper();
    /* Makes one of the keeper's calls, which can take as long as a move and the steps before it. */
    KeeperAnswer ask_keeper(const client::Call &call);

    /* The next news; none when `deadline` has passed. */
    std::optional<News> next(const Deadline &deadline);
    bool has_news() const { return !queue.empty(); }

private:
    struct Reply {
        client::Variant value; /* null: there is an error */
        client::Error error;
    };
    Reply send(const char *name, const char *path, const client::Call &call, int limit_ms);
    Result<client::Variant> call(const char *name, const char *path, const client::Call &call);
    void push(News::Content content);

    client::Object<GDBusConnection> connection;
    std::vector<guint> subscriptions;
    client::Source output_source;
    std::deque<News> queue;
};

/* Connects and reads the state; with `listen`, announcements are queued from before the reading. */
Result<client::Snapshot> open_daemon(Bus &bus, bool listen = false);
/* What the keeper knows where the daemon answered as `daemon`: nothing when that is a problem which
   the keeper shares. */
KeeperView read_keeper(Bus &bus, const Result<client::Snapshot> &daemon);

} // namespace ctl
