#include "ctl/line/arguments.h"

#include "ctl/line/options.h"

#include <CLI/CLI.hpp>
#include <glib.h>

#include <algorithm>
#include <functional>

namespace ctl {

namespace {

/* More than anyone waits, and its sum with a clock is far from overflow. */
constexpr int longest_wait_s = 100'000'000;

/* A check of a value's text. Its complaint is a whole message. */
CLI::Validator check(const std::function<bool(const std::string &)> &fits,
                     const std::function<std::string(const std::string &)> &complaint) {
    return {[fits, complaint](const std::string &text) {
                return fits(text) ? std::string() : complaint(text);
            },
            ""};
}

/* All texts go to the bus, which carries nothing else. */
CLI::Validator utf8() {
    return check(
        [](const std::string &text) {
            return g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr) != FALSE;
        },
        [](const std::string &) { return "an argument is not valid UTF-8"; });
}

CLI::Validator count(const std::string &option) {
    return check(
        [](const std::string &text) {
            unsigned number = 0;
            return CLI::detail::lexical_cast(text, number) && number > 0;
        },
        [option](const std::string &) { return option + " takes a whole number from 1 up"; });
}

CLI::Validator seconds(const std::string &option) {
    return check(
        [](const std::string &text) {
            double number = 0;
            return CLI::detail::lexical_cast(text, number) && number > 0 &&
                   number <= longest_wait_s;
        },
        [option](const std::string &) {
            return option + " takes a number of seconds above 0, at most " +
                   std::to_string(longest_wait_s);
        });
}

/* A word out of `choice`, which separates them by "|". */
void add_word(CLI::App &command, Options &options, const std::string &choice) {
    const std::vector<std::string> words = CLI::detail::split(choice, '|');
    command.add_option(choice, options.word)
        ->required()
        ->check(
            check([words](const std::string &text) { return std::ranges::count(words, text) > 0; },
                  [choice, name = command.get_name()](const std::string &text) {
                      return name + " takes " + choice + ", not '" + text + "'";
                  }));
}

} // namespace

void take_on_or_off(CLI::App &command, Options &options) {
    add_word(command, options, "on|off");
}

void take_state(CLI::App &command, Options &options) {
    add_word(command, options, "master|slave|stable");
}

void take_change(CLI::App &command, Options &options) {
    add_word(command, options, "add|remove");
}

void take_devpath(CLI::App &command, Options &options) {
    command.add_option("DEVPATH", options.devpath)->required()->check(utf8());
}

void take_reason(CLI::App &command, Options &options) {
    command.add_option("REASON", options.text)->required()->check(utf8());
}

void take_text(CLI::App &command, Options &options) {
    command.add_option("TEXT", options.text)->required()->check(utf8());
}

void take_topic(CLI::App &command, Options &options) {
    command.add_option("COMMAND", options.text)->check(utf8());
}

void take_node(CLI::App &command, Options &options) {
    command.add_option("NODE", options.text)->check(utf8());
}

void take_alone(CLI::App &command, Options &options) {
    command
        .add_flag("--alone", options.alone,
                  "on the only node left: restart its daemon without the freeze")
        ->disable_flag_override();
}

void take_yes(CLI::App &command, Options &options) {
    command.add_flag("--yes", options.yes, "with --alone: do not ask")->disable_flag_override();
}

void take_json(CLI::App &command, Options &options) {
    command.add_flag("--json", options.json, "print JSON, with a schema number")
        ->disable_flag_override();
}

void take_last(CLI::App &command, Options &options) {
    command.add_option("--last", options.last, "show the last N events only")
        ->option_text("=N")
        ->check(count("--last"));
}

void take_log(CLI::App &command, Options &options) {
    command
        .add_option("--log", options.log,
                    "read this output of journalctl -o json, or - for standard input")
        ->option_text("=FILE");
}

void take_members(CLI::App &command, Options &options) {
    command.add_option("--members", options.members, "warn when there are fewer members")
        ->option_text("=N")
        ->check(count("--members"));
}

void take_since(CLI::App &command, Options &options) {
    command.add_option("--since", options.since, "read the journal from TIME on")
        ->option_text("=TIME");
}

void take_timeout(CLI::App &command, Options &options) {
    command.add_option("--timeout", options.timeout, "give up after this time")
        ->option_text("=SECONDS")
        ->check(seconds("--timeout"));
}

/* A flag, so that a value needs the "=": "freeze --wait REASON" has none. The library would count
   flags that are bound to a number. */
void take_wait(CLI::App &command, Options &options) {
    command.add_flag("--wait{300}")
        ->description("wait until it has taken effect (at most 300 s)")
        ->option_text("[=SECONDS]")
        ->check(seconds("--wait"))
        ->each([&options](const std::string &text) {
            CLI::detail::lexical_cast(text, options.wait.emplace());
        });
}

} // namespace ctl
