/* The commands, a file each. Every one gets checked arguments and returns the exit status. */
#pragma once

#include "ctl/exit-status.h"
#include "ctl/line/command.h"
#include "ctl/line/options.h"

#include <span>

namespace ctl {

/* All of them: the rows of table.cpp. */
std::span<const Command> commands();

int command_check(const Options &options);
int command_doctor(const Options &options);
int command_fit(const Options &options);
int command_freeze(const Options &options);
int command_give_back(const Options &options);
int command_history(const Options &options);
int command_hotplug(const Options &options);
int command_keep_alive(const Options &options);
int command_metrics(const Options &options);
int command_monitor(const Options &options);
int command_move(const Options &options);
int command_prefer(const Options &options);
int command_send(const Options &options);
int command_status(const Options &options);
int command_take_over(const Options &options);
int command_unfreeze(const Options &options);
int command_wait(const Options &options);
int command_why(const Options &options);

} // namespace ctl
