#include "ctl/line/parse.h"

#include "ctl/exit-status.h"
#include "ctl/print/text.h"

#include "version.h"

#include <CLI/CLI.hpp>

#include <algorithm>

namespace ctl {

namespace {

/* The arguments of a command, with a blank before each. */
std::string arguments_text(const CLI::App &command) {
    std::string text;
    for (const CLI::Option *argument :
         command.get_options([](const CLI::Option *option) { return option->get_positional(); })) {
        const std::string name = argument->get_name(true);
        text += argument->get_required() ? " " + name : " [" + name + "]";
    }
    return text;
}

/* Shows how each thing is typed, and leaves out the types of values. */
class HelpFormat : public CLI::Formatter {
public:
    HelpFormat() { column_width(30); }
    std::string make_usage(const CLI::App *app, std::string name) const override {
        return app->get_parent() == nullptr
                   ? "\nUsage: " + name + " [COMMAND] [ARGUMENTS] [OPTIONS]\n"
                   : "\nUsage: " + name + arguments_text(*app) + " [OPTIONS]\n";
    }
    std::string make_positionals(const CLI::App *) const override { return {}; }
    std::string make_option_opts(const CLI::Option *option) const override {
        return option->get_option_text();
    }
    std::string make_option_name(const CLI::Option *option, bool) const override {
        return "--" + option->get_lnames().front();
    }
    std::string make_subcommand(const CLI::App *command) const override {
        return column("  " + command->get_name() + arguments_text(*command), get_column_width()) +
               command->get_description() + "\n";
    }
};

class Line {
public:
    explicit Line(std::span<const Command> table) : commands(table) {
        app.formatter(std::make_shared<HelpFormat>());
        app.set_help_flag("-h,--help", "show the help");
        app.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
        app.require_subcommand(0, 1);
        app.footer("More: man duskvalectl");
        for (const Command &command : commands) {
            CLI::App *added = app.add_subcommand(command.name, command.help)->group("Commands");
            for (const Argument &add : command.takes) {
                add(*added, options);
            }
        }
        app.set_version_flag("--version", "duskvalectl " DUSKVALE_VERSION, "show the version");
        app.footer("'duskvalectl help COMMAND' shows which options a command takes.\n"
                   "More, such as the exit statuses: man duskvalectl");
    }

    Parsed parse(std::vector<std::string> words) {
        const bool named = !words.empty() && !words.front().starts_with('-');
        if (named) {
            options.command = &find(words.front());
        } else if (words != Words{"--help"} && words != Words{"-h"} &&
                   words != Words{"--version"}) {
            /* Options without a command are those of the first. */
            options.command = &commands.front();
            words.insert(words.begin(), options.command->name);
        }
        std::ranges::reverse(words);
        const Command *const blamed = named ? options.command : nullptr;
        try {
            app.parse(std::move(words));
        } catch (const CLI::CallForHelp &) {
            return Text{app.help()};
        } catch (const CLI::CallForVersion &version) {
            return Text{version.what() + std::string("\n")};
        } catch (const CLI::ExtrasError &) {
            throw WrongLine{blamed, extra_text(app.remaining(true).front(), named)};
        } catch (const CLI::RequiredError &error) {
            const std::string what = error.what();
            throw WrongLine{blamed, options.command->name +
                                        (" needs " + what.substr(0, what.find(" is required")))};
        } catch (const CLI::ArgumentMismatch &error) {
            const std::string what = error.what();
            throw WrongLine{blamed, what.find("flag override") != what.npos
                                        ? "--" + what.substr(0, what.find(' ')) + " takes no value"
                                        : what.substr(0, what.find(':')) + " needs a value"};
        } catch (const CLI::ValidationError &error) {
            /* The check wrote all of it; the name in front is the library's. */
            const std::string what = error.what();
            throw WrongLine{blamed, what.substr(what.find(": ") + 2)};
        } catch (const CLI::ParseError &error) {
            throw WrongLine{blamed, error.what()};
        }
        return options.command->run != nullptr ? Parsed(options) : help();
    }

private:
    using Words = std::vector<std::string>;

    const Command &find(const std::string &name) const {
        const auto found = std::ranges::find(commands, name, &Command::name);
        if (found == commands.end()) {
            throw WrongLine{nullptr, "there is no command '" + name + "'"};
        }
        return *found;
    }

    Parsed help() {
        app.clear();
        if (options.text.empty()) {
            return Text{app.help()};
        }
        return Text{app.get_subcommand(find(options.text).name)->help(app.get_name())};
    }

    std::string extra_text(const std::string &word, bool named) const {
        const std::string name = options.command->name;
        const std::string arguments = arguments_text(*app.get_subcommand(name));
        if (!named) {
            return word + ": name a command first, its options come after it";
        }
        if (word.starts_with('-')) {
            return word + " is not an option of '" + name + "'";
        }
        return arguments.empty()
                   ? name + " takes no arguments"
                   : name + " takes only" + arguments + "; put a text of several words in quotes";
    }

    std::span<const Command> commands;
    CLI::App app{"duskvalectl: see and move the master of a duskvale cluster", "duskvalectl"};
    Options options;
};

} // namespace

Parsed parse_line(std::span<const Command> commands, int argc, char **argv) {
    return Line(commands).parse({argv + std::min(argc, 1), argv + argc});
}

int report(const WrongLine &line) {
    const bool is_check = line.command != nullptr && line.command->is_check;
    const std::string topic = line.command != nullptr ? std::string(" ") + line.command->name : "";
    return complain(is_check ? CheckExit::unknown : Exit::usage,
                    line.fault + "\nTry 'duskvalectl help" + topic + "'.");
}

} // namespace ctl
