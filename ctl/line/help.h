/* The help, made from the table. */
#pragma once

#include "ctl/line/table.h"

#include <string>

namespace ctl {

std::string help_text();
std::string command_help_text(const CommandSpec &command);
std::string version_text();

} // namespace ctl
