#include "ctl/run.h"

#include "ctl/line/arguments.h"
#include "ctl/line/help.h"
#include "ctl/print/text.h"

#include <clocale>
#include <cstring>

namespace ctl {

int run(int argc, char **argv) {
    std::setlocale(LC_CTYPE, "");
    const std::optional<Arguments> arguments = parse_arguments(argc, argv);
    if (!arguments) {
        /* A monitoring system would read the ordinary status as critical. */
        const bool check =
            argc > 1 && (std::strcmp(argv[1], "check") == 0 || std::strcmp(argv[1], "doctor") == 0);
        return check ? static_cast<int>(CheckExit::unknown) : static_cast<int>(Exit::usage);
    }
    if (arguments->has(Opt::version)) {
        print(version_text());
        return finish_output(static_cast<int>(Exit::ok));
    }
    if (arguments->has(Opt::help)) {
        /* Without a command the whole help is meant. */
        const bool named = argc > 1 && argv[1][0] != '-';
        print(named ? command_help_text(*arguments->command) : help_text());
        return finish_output(static_cast<int>(Exit::ok));
    }
    return finish_output(arguments->command->run(*arguments));
}

} // namespace ctl
