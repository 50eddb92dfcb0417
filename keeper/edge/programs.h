/*
 * The watch programs: every file in the directory whose name ends in ".watch". A round starts all
 * of them at once, without arguments. Exit status 0 means that the service works; with any other,
 * the first line of the output is the reason. What still runs of a program's process group at its
 * limit, or after its end, is killed.
 */
#pragma once

#include "keeper/edge/call.h"

#include <list>

namespace keeper {

class Programs {
public:
    /* `deliver` gets a WatchRan for each round. */
    Programs(std::string directory_, Duration limit_, Deliver deliver_)
        : directory(std::move(directory_)), limit(limit_), deliver(std::move(deliver_)) {}

    /* Starts a round; not while one runs. */
    void run();

private:
    struct Child {
        Programs *owner;
        WatchRan::Result result;
        int output; /* a file in memory: nobody needs to read along for the program to go on */
    };
    static void on_end(GPid process, gint wait_status, gpointer child) noexcept;
    void end_round_if_over();

    std::string directory;
    Duration limit;
    Deliver deliver;
    std::list<Child> round;
    size_t running = 0; /* of them */
};

} // namespace keeper
