#include "ctl/line/arguments.h"

#include <CLI/CLI.hpp>
#include <glib.h>

#include <algorithm>
#include <limits>
#include <vector>

namespace ctl {

namespace {

/* More than anyone waits, and its sum with a clock is far from overflow. */
constexpr int longest_wait_s = 100'000'000;

/* A complaint is a whole message; "" for a text that fits. */
using Check = std::function<std::string(const std::string &text)>;

/* All texts go to the bus, which carries nothing else. */
std::string check_utf8(const std::string &text) {
    return g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr) != FALSE
               ? ""
               : "an argument is not valid UTF-8";
}

/* None for a text that is not a number of seconds to wait. */
std::optional<double> seconds(const std::string &text) {
    char *end = nullptr;
    const double number = g_ascii_strtod(text.c_str(), &end);
    const bool whole = end != text.c_str() && *end == '\0';
    return whole && number > 0 && number <= longest_wait_s ? std::optional(number) : std::nullopt;
}

Check check_seconds(const std::string &option) {
    return [option](const std::string &text) {
        return seconds(text) ? ""
                             : option + " takes a number of seconds above 0, at most " +
                                   std::to_string(longest_wait_s);
    };
}

Check check_count(const std::string &option) {
    return [option](const std::string &text) {
        static const CLI::Range from_1_up(1U, std::numeric_limits<unsigned>::max());
        return from_1_up(text).empty() ? "" : option + " takes a whole number from 1 up";
    };
}

} // namespace

Argument one_of(const char *name, std::initializer_list<std::string> words) {
    return [name, words = std::vector(words)](CLI::App &command, Options &options) {
        const std::string takes = command.get_name() + " takes " + name + ", not '";
        command.add_option(name, options.word)
            ->required()
            ->check([takes, words](const std::string &text) {
                return std::ranges::count(words, text) > 0 ? "" : takes + text + "'";
            });
    };
}

Argument text(const char *name, std::string Options::*value, bool required) {
    return [=](CLI::App &command, Options &options) {
        command.add_option(name, options.*value)->required(required)->check(check_utf8);
    };
}

Argument flag(const char *name, bool Options::*value, const char *help) {
    return [=](CLI::App &command, Options &options) {
        command.add_flag(name, options.*value, help)->disable_flag_override();
    };
}

Argument text_option(const char *name, const char *shown, std::string Options::*value,
                     const char *help) {
    return [=](CLI::App &command, Options &options) {
        command.add_option(name, options.*value, help)->option_text(shown);
    };
}

Argument count_option(const char *name, std::optional<unsigned> Options::*value, const char *help) {
    return [=](CLI::App &command, Options &options) {
        command.add_option(name, options.*value, help)->option_text("=N")->check(check_count(name));
    };
}

Argument seconds_option(const char *name, std::optional<double> Options::*value, const char *help) {
    return [=](CLI::App &command, Options &options) {
        command.add_option(name, options.*value, help)
            ->option_text("=SECONDS")
            ->check(check_seconds(name));
    };
}

/* A flag, so that a value needs the "=": "freeze --wait REASON" has none. The library would count
   flags that are bound to a number. */
Argument wait_option() {
    return [](CLI::App &command, Options &options) {
        command.add_flag("--wait{300}")
            ->description("wait until it has taken effect (at most 300 s)")
            ->option_text("[=SECONDS]")
            ->check(check_seconds("--wait"))
            ->each([&options](const std::string &text) { options.wait = seconds(text); });
    };
}

} // namespace ctl
