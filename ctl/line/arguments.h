/* What commands take: each function adds an option or an argument to `command`, with its check. */
#pragma once

namespace CLI {
class App;
}

namespace ctl {

struct Options;

void take_on_or_off(CLI::App &command, Options &options);
void take_state(CLI::App &command, Options &options);
void take_change(CLI::App &command, Options &options);
void take_devpath(CLI::App &command, Options &options);
void take_reason(CLI::App &command, Options &options);
void take_text(CLI::App &command, Options &options);
void take_topic(CLI::App &command, Options &options);
void take_json(CLI::App &command, Options &options);
void take_alone(CLI::App &command, Options &options);
void take_node(CLI::App &command, Options &options);
void take_yes(CLI::App &command, Options &options);
void take_last(CLI::App &command, Options &options);
void take_log(CLI::App &command, Options &options);
void take_members(CLI::App &command, Options &options);
void take_since(CLI::App &command, Options &options);
void take_timeout(CLI::App &command, Options &options);
void take_wait(CLI::App &command, Options &options);

} // namespace ctl
