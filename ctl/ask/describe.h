/* News in words, for eyes and for programs. */
#pragma once

#include "ctl/ask/news.h"
#include "ctl/print/json.h"
#include "ctl/print/text.h"

#include "client/node-id.h"

#include <string>

namespace ctl {

/* A line; node ids unsigned, texts safe for a terminal. `local_node` is 0 while it is not known. */
std::string describe(const client::Announcement &announcement, client::NodeId local_node);
std::string describe(const News &news, client::NodeId local_node);

/* How urgent it is. */
Colour colour_of(const News &news);

/* The members "time", "event", a stable word such as "new-master", and all values. */
Json json_news(const News &news);

/* "exited with status 2", "killed by signal 15 (Terminated)"; empty for success. */
std::string describe_wait_status(int status);

} // namespace ctl
