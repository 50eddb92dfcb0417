#include "ctl/line/help.h"

#include "version.h"

namespace ctl {

namespace {

/* One line of a list: two columns, the second at `width`. */
std::string row(const std::string &left, std::size_t width, const std::string &right) {
    std::string line = "  " + left;
    line.resize(std::max(line.size() + 2, width), ' ');
    return line + right + "\n";
}

std::string option_usage(const OptionSpec &spec) {
    std::string name = std::string("--") + spec.name;
    switch (spec.value) {
    case Value::none:
        break;
    case Value::required:
        return name + "=" + spec.value_name;
    case Value::optional:
        return name + "[=" + spec.value_name + "]";
    }
    return name;
}

std::string command_usage(const CommandSpec &command) {
    return *command.arguments != '\0' ? std::string(command.name) + " " + command.arguments
                                      : command.name;
}

constexpr std::size_t command_column = 30;
constexpr std::size_t option_column = 22;

} // namespace

std::string help_text() {
    std::string text = "duskvalectl: see and move the master of a duskvale cluster\n\n"
                       "Usage: duskvalectl [COMMAND] [ARGUMENTS] [OPTIONS]\n\n"
                       "Commands:\n";
    for (const CommandSpec &command : commands()) {
        text += row(command_usage(command), command_column, command.help);
    }
    text += "\nOptions:\n";
    for (const OptionSpec &spec : options()) {
        text += row(option_usage(spec), option_column, spec.help);
    }
    text += "\n'duskvalectl help COMMAND' shows which options a command takes.\n\nExit status:\n";
    for (const ExitSpec &status : exit_statuses()) {
        text += row(std::to_string(static_cast<int>(status.status)), 5, status.meaning);
    }
    return text + "'check' and 'doctor' end with 0 OK, 1 warning, 2 critical, 3 unknown instead.\n";
}

std::string command_help_text(const CommandSpec &command) {
    std::string text = "Usage: duskvalectl " + command_usage(command);
    for (const Opt id : command.options) {
        text += " [" + option_usage(option(id)) + "]";
    }
    text += std::string("\n\n") + command.name + ": " + command.help + "\n";
    if (!command.options.empty()) {
        text += "\nOptions:\n";
        for (const Opt id : command.options) {
            text += row(option_usage(option(id)), option_column, option(id).help);
        }
    }
    return text + "\nMore: man duskvalectl\n";
}

std::string version_text() {
    return "duskvalectl " DUSKVALE_VERSION "\n";
}

} // namespace ctl
