/*
 * What the keeper remembers, in one small file (GKeyFile). It is written by a thread, since a disk
 * that hangs must not stop the keeper; to the disk itself, and as a whole or not at all.
 */
#pragma once

#include "keeper/edge/call.h"

namespace keeper {

class Disk {
public:
    /* `deliver` gets a DiskWritten after each attempt to write. */
    Disk(std::string path_, Deliver deliver_)
        : path(std::move(path_)), deliver(std::move(deliver_)) {}

    /* Reads it at once. A file that is not there holds nothing. */
    DiskRead read() const;
    /* While a write lasts, only the last of those that follow is carried out after it. */
    void write(const Stored &stored);

private:
    std::string path;
    Deliver deliver;
    bool writing = false;
    std::optional<Stored> waiting;
};

} // namespace keeper
