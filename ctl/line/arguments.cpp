#include "ctl/line/arguments.h"

#include <getopt.h>
#include <glib.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <system_error>

namespace ctl {

namespace {

/* The getopt value of an option is this plus its place in the table, to keep clear of characters.
 */
constexpr int first_option_value = 0x100;

/* More than anyone waits, and its sum with a clock is far from overflow. */
constexpr unsigned longest_wait_s = 100'000'000;

std::vector<struct option> getopt_table(const CommandSpec &command) {
    std::vector<struct option> table;
    for (const OptionSpec &spec : options()) {
        const bool everywhere = spec.id == Opt::help || spec.id == Opt::version;
        if (!everywhere && std::ranges::find(command.options, spec.id) == command.options.end()) {
            continue;
        }
        table.push_back({spec.name, static_cast<int>(spec.value), nullptr,
                         first_option_value + static_cast<int>(&spec - options().data())});
    }
    table.push_back({});
    return table;
}
static_assert(static_cast<int>(Value::none) == no_argument);
static_assert(static_cast<int>(Value::required) == required_argument);
static_assert(static_cast<int>(Value::optional) == optional_argument);

void complain(const char *command, const std::string &fault) {
    std::fprintf(stderr, "duskvalectl: %s\nTry 'duskvalectl help%s%s'.\n", fault.c_str(),
                 *command != '\0' ? " " : "", command);
}

/* The spelling of the option that getopt has just stumbled over. */
std::string option_at_fault(char **argv) {
    return optopt != 0 && optopt < first_option_value ? std::string("-") + static_cast<char>(optopt)
                                                      : argv[optind - 1];
}

void complain_of_option(const Arguments &arguments, bool named, const std::string &spelling) {
    if (optopt >= first_option_value) {
        complain(arguments.command->name, spelling + " takes no value");
    } else if (named) {
        complain(arguments.command->name,
                 spelling + " is no option of '" + arguments.command->name + "'");
    } else {
        complain("", spelling + ": name a command first, its options come after it");
    }
}

/* `named`: the command was named, not taken for granted. */
bool parse_options(Arguments &arguments, bool named, int argc, char **argv) {
    const std::vector<struct option> table = getopt_table(*arguments.command);
    /* 0 makes getopt start afresh; the leading colon makes it report faults instead of printing. */
    optind = 0;
    opterr = 0;
    int found = 0;
    while ((found = getopt_long(argc, argv, ":h", table.data(), nullptr)) != -1) {
        if (found == 'h') {
            arguments.add(Opt::help, "");
        } else if (found == ':') {
            complain(arguments.command->name,
                     std::string(argv[optind - 1]) + " needs a value after it");
            return false;
        } else if (found == '?') {
            complain_of_option(arguments, named, option_at_fault(argv));
            return false;
        } else {
            const auto place = static_cast<std::size_t>(found - first_option_value);
            arguments.add(options()[place].id, optarg != nullptr ? optarg : "");
        }
    }
    return true;
}

bool parse_positional(Arguments &arguments, int argc, char **argv) {
    const CommandSpec &command = *arguments.command;
    for (int i = optind; i < argc; i++) {
        /* All texts go to the bus, where only UTF-8 may be said. */
        if (!g_utf8_validate(argv[i], -1, nullptr)) {
            complain(command.name, "an argument is not valid UTF-8");
            return false;
        }
        arguments.positional.emplace_back(argv[i]);
    }
    if (arguments.has(Opt::help) || arguments.has(Opt::version)) {
        return true;
    }
    if (arguments.positional.size() < command.min_arguments) {
        complain(command.name, std::string(command.name) + " needs " + command.arguments);
        return false;
    }
    if (arguments.positional.size() > command.max_arguments) {
        complain(command.name,
                 command.max_arguments == 0
                     ? std::string(command.name) + " takes no arguments; options go after a command"
                     : std::string(command.name) + " takes only " + command.arguments +
                           "; put a text of several words in quotes");
        return false;
    }
    return true;
}

} // namespace

bool Arguments::has(Opt id) const {
    return std::ranges::any_of(given, [id](const auto &entry) { return entry.first == id; });
}

std::string Arguments::value(Opt id) const {
    for (auto entry = given.rbegin(); entry != given.rend(); ++entry) {
        if (entry->first == id) {
            return entry->second;
        }
    }
    return {};
}

std::optional<Arguments> parse_arguments(int argc, char **argv) {
    Arguments arguments;
    const bool named = argc > 1 && argv[1][0] != '-';
    arguments.command = named ? find_command(argv[1]) : &commands().front();
    if (arguments.command == nullptr) {
        unknown_command(argv[1]);
        return std::nullopt;
    }
    const int skip = named ? 1 : 0;
    if (!parse_options(arguments, named, argc - skip, argv + skip) ||
        !parse_positional(arguments, argc - skip, argv + skip)) {
        return std::nullopt;
    }
    return arguments;
}

int unknown_command(const std::string &name) {
    complain("", "there is no command '" + name + "'");
    return static_cast<int>(Exit::usage);
}

int usage_fault(const Arguments &arguments, const std::string &fault) {
    complain(arguments.command->name, fault);
    return static_cast<int>(Exit::usage);
}

std::optional<unsigned> parse_count(const std::string &text, unsigned least) {
    unsigned count = 0;
    const char *end = text.data() + text.size();
    const auto [stop, fault] = std::from_chars(text.data(), end, count);
    if (fault != std::errc{} || stop != end || count < least) {
        return std::nullopt;
    }
    return count;
}

std::optional<std::chrono::microseconds> parse_seconds(const Arguments &arguments, Opt id) {
    const std::string text = arguments.value(id);
    double seconds = 0;
    const char *end = text.data() + text.size();
    const auto [stop, fault] = std::from_chars(text.data(), end, seconds);
    if (fault != std::errc{} || stop != end || !(seconds > 0 && seconds <= longest_wait_s)) {
        usage_fault(arguments, std::string("--") + option(id).name +
                                   " takes a number of seconds above 0, at most " +
                                   std::to_string(longest_wait_s));
        return std::nullopt;
    }
    return std::chrono::round<std::chrono::microseconds>(std::chrono::duration<double>(seconds));
}

} // namespace ctl
