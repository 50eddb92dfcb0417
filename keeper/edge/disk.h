/*
 * What the keeper remembers, in one small file (GKeyFile). It is written by a thread, since a disk
 * that hangs must not stop the keeper; to the disk itself, and as a whole or not at all.
 */
#pragma once

#include "keeper/edge/call.h"

namespace keeper {

struct Disk {
    std::string path;
    Deliver deliver; /* gets a DiskWritten after each attempt to write */
    bool writing = false;
    std::optional<Stored> waiting = {};

    /* Reads it at once. A file that is not there holds nothing. */
    DiskRead read() const;
    /* While a write lasts, only the last of those that follow is carried out after it. */
    void write(const Stored &stored);
};

} // namespace keeper
