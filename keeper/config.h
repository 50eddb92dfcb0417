/* keeper.conf: a key file as GLib defines it (Desktop Entry syntax). Every key may be left out. */
#pragma once

#include "keeper/policy/types.h"

#include <string>
#include <vector>

namespace keeper {

struct ConfigRead {
    Config config;
    std::vector<std::string> problems; /* one line each, with the file's name; empty: all is well */
};

/* Reads `path`. A file that is not there gives the defaults; so does one with a problem. */
ConfigRead read_config(const std::string &path);

} // namespace keeper
