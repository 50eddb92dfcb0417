/* The commands, a file each. Every one gets checked arguments and returns the exit status. */
#pragma once

#include "ctl/line/arguments.h"

namespace ctl {

int command_check(const Arguments &arguments);
int command_doctor(const Arguments &arguments);
int command_freeze(const Arguments &arguments);
int command_give_back(const Arguments &arguments);
int command_help(const Arguments &arguments);
int command_history(const Arguments &arguments);
int command_hotplug(const Arguments &arguments);
int command_keep_alive(const Arguments &arguments);
int command_metrics(const Arguments &arguments);
int command_monitor(const Arguments &arguments);
int command_prefer(const Arguments &arguments);
int command_send(const Arguments &arguments);
int command_status(const Arguments &arguments);
int command_take_over(const Arguments &arguments);
int command_unfreeze(const Arguments &arguments);
int command_wait(const Arguments &arguments);
int command_why(const Arguments &arguments);

} // namespace ctl
