#include "ctl/doctor/unit-view.h"

#include "ctl/doctor/program.h"
#include "ctl/print/text.h"

#include "base/paths.h"

#include <unistd.h>

#include <sstream>

namespace ctl {

namespace {

/* There only while systemd is the init system: sd_booted(3). */
constexpr const char *systemd_directory = "/run/systemd/system";

} // namespace

std::string UnitView::property(const std::string &name) const {
    const auto found = properties.find(name);
    return found == properties.end() ? "" : found->second;
}

UnitView view_unit() {
    UnitView view;
    view.booted = access(systemd_directory, F_OK) == 0;
    if (!view.booted) {
        return view;
    }
    const ProgramAnswer systemctl =
        ask_program({"systemctl", "show", DUSKVALE_IDENT,
                     "--property=LoadState,UnitFileState,ActiveState,SubState,Result,"
                     "NRestarts,NeedDaemonReload"});
    if (!systemctl.good()) {
        view.fault = systemctl.err.empty() ? "no answer" : printable(systemctl.err);
        return view;
    }
    std::istringstream lines(systemctl.out);
    for (std::string line; std::getline(lines, line);) {
        const std::size_t equals = line.find('=');
        if (equals != std::string::npos) {
            view.properties[line.substr(0, equals)] = line.substr(equals + 1);
        }
    }
    return view;
}

} // namespace ctl
