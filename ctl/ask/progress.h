/* The run steps as they go, for someone who sits in front of a terminal. */
#pragma once

#include "ctl/ask/news.h"

#include <cstdint>

namespace ctl {

/* Writes on standard error, and only when that is a terminal. */
class Progress {
public:
    Progress();
    Progress(const Progress &) = delete;
    Progress &operator=(const Progress &) = delete;
    ~Progress(); /* ends a line that is under way */

    void show(const News &news, client::NodeId local_node);

private:
    bool terminal;
    bool line_open = false;
    int64_t step_began = 0;
};

} // namespace ctl
