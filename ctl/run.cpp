#include "ctl/run.h"

#include "ctl/line/parse.h"
#include "ctl/line/table.h"
#include "ctl/print/text.h"

#include "client/overloaded.h"

#include <clocale>

namespace ctl {

int run(int argc, char **argv) {
    std::setlocale(LC_CTYPE, "");
    return finish_output(
        std::visit(client::Overloaded{
                       [](const Options &options) { return options.command->run(options); },
                       [](const Text &shown) {
                           print(shown.text);
                           return int{Exit::ok};
                       },
                       [](const WrongLine &line) { return line.status; },
                   },
                   parse_line(argc, argv)));
}

} // namespace ctl
