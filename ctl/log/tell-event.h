/* One event in an operator's words. */
#pragma once

#include "ctl/log/episode.h"
#include "ctl/print/text.h"

#include <string>

namespace ctl {

std::string event_text(const Event &event);
Colour event_colour(const Event &event);
/* "10-network.run start, 800 ms"; how long it ran only when the log has times. */
std::string step_text(const Step &step);

} // namespace ctl
