#include "ctl/ask/problem.h"
#include "ctl/commands/commands.h"
#include "ctl/exit-status.h"
#include "ctl/line/parse.h"
#include "ctl/print/text.h"

#include <clocale>
#include <exception>

int main(int argc, char **argv) {
    using namespace ctl;
    std::setlocale(LC_CTYPE, "");
    int status = Exit::failed, failed = Exit::failed;
    try {
        const Parsed parsed = parse_line(commands(), argc, argv);
        if (const auto *options = std::get_if<Options>(&parsed)) {
            const Command &command = *options->command;
            /* For an exception that nothing expects. A monitoring system must not take it for a
               warning. */
            status = failed = command.is_check ? CheckExit::unknown : Exit::failed;
            status = command.run(*options);
        } else {
            print(std::get<Text>(parsed).text);
            status = Exit::ok;
        }
    } catch (const WrongLine &line) {
        status = report(line);
    } catch (const Problem &problem) {
        status = report(problem);
    } catch (const std::exception &fault) {
        complain(status, std::string("cannot go on: ") + fault.what());
    }
    return finish_output(status, failed);
}
