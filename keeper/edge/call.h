/* What all edges have in common: whom they report to, and calls over the bus that wait for nothing.
 */
#pragma once

#include "keeper/policy/types.h"

#include "client/call.h"

#include <gio/gio.h>

#include <functional>
#include <string>

namespace keeper {

/* Takes what an edge has found out; called by the main loop only. Edges live until the process
 * ends. */
using Deliver = std::function<void(const Input &)>;

/* What the daemon announces, in its order. */
Input input_of(const client::Announcement &announcement);

struct Reply {
    GVariant *arguments = nullptr; /* valid during the call only; null for an error */
    std::string error;
};

/*
 * Calls a method of an object on the bus; starts nothing that is not there. `answered` is called by
 * the main loop, in the answer's place among the signals of the same connection, and waited for
 * without limit: who needs one sets a timer. Without it no answer is asked for.
 */
void call(GDBusConnection *bus, const char *name, const char *path, const client::Call &asked,
          std::function<void(const Reply &)> answered = nullptr);

/* Has `callback` called by the main loop. May be called by any thread. */
void call_on_main_loop(std::function<void()> callback);

/* The files that a pattern names: glob(3), in its order. */
std::vector<std::string> paths(const std::string &pattern);

/* On the clock of the policies. */
Time now();

} // namespace keeper
