#include "ctl/doctor/checks.h"
#include "ctl/doctor/program.h"
#include "ctl/output.h"

#include "base/paths.h"

#include <unistd.h>

#include <cstdlib>
#include <map>
#include <sstream>

namespace ctl {

namespace {

/* There only while systemd is the init system: sd_booted(3). */
constexpr const char *systemd_directory = "/run/systemd/system";

using Properties = std::map<std::string, std::string>;

Properties read_properties(const std::string &text) {
    Properties properties;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        const std::size_t equals = line.find('=');
        if (equals != std::string::npos) {
            properties[line.substr(0, equals)] = line.substr(equals + 1);
        }
    }
    return properties;
}

void check_enabled(Properties &unit, Findings &findings) {
    const std::string state = unit["UnitFileState"];
    if (state == "enabled") {
        findings.add(Level::ok, "it is enabled: started at boot, and with corosync");
    } else {
        findings.add(Level::warning, "it is not started at boot: " + printable(state),
                     "systemctl enable " DUSKVALE_IDENT);
    }
    if (unit["NeedDaemonReload"] == "yes") {
        findings.add(Level::warning, "its file has changed, and systemd has not read it since",
                     "systemctl daemon-reload");
    }
}

void check_active(Properties &unit, Findings &findings) {
    const std::string state = unit["ActiveState"];
    const std::string text = "it is " + printable(state) + " (" + printable(unit["SubState"]) + ")";
    if (state == "active") {
        findings.add(Level::ok, text);
    } else if (state == "failed") {
        /* Result tells of the last end, mostly also when systemd has given up restarting. */
        const uint64_t restarts = std::strtoull(unit["NRestarts"].c_str(), nullptr, 10);
        const std::string tried = restarts == 0 ? "" : " after " + counted(restarts, "restart");
        findings.add(Level::critical, text + tried + ": " + printable(unit["Result"]),
                     "journalctl -u " DUSKVALE_IDENT " -e; when the cause is mended: "
                     "systemctl reset-failed " DUSKVALE_IDENT ", then systemctl start it");
    } else if (state == "inactive") {
        findings.add(Level::critical, text, "systemctl start " DUSKVALE_IDENT);
    } else if (unit["SubState"] == "start-pre") {
        findings.add(Level::warning, text + ": it waits until corosync has formed its ring",
                     "corosync-cfgtool -s; it does not wait for long");
    } else {
        findings.add(Level::warning, text, "systemctl status " DUSKVALE_IDENT);
    }
}

} // namespace

void check_unit(const Facts &, Findings &findings) {
    if (access(systemd_directory, F_OK) != 0) {
        findings.add(Level::note, "systemd does not run here, so its unit is not looked at");
        return;
    }
    const ProgramAnswer systemctl =
        ask_program({"systemctl", "show", DUSKVALE_IDENT,
                     "--property=LoadState,UnitFileState,ActiveState,SubState,Result,"
                     "NRestarts,NeedDaemonReload"});
    if (!systemctl.good()) {
        findings.add(Level::unknown,
                     "systemctl does not tell: " +
                         (systemctl.err.empty() ? "no answer" : printable(systemctl.err)));
        return;
    }
    Properties unit = read_properties(systemctl.out);
    const std::string load = unit["LoadState"];
    if (load == "masked") {
        findings.add(Level::critical, "it is masked: nothing can start it",
                     "systemctl unmask " DUSKVALE_IDENT);
    } else if (load != "loaded") {
        findings.add(Level::critical, "systemd has no usable unit: " + printable(load),
                     "systemctl daemon-reload; apt-get install --reinstall " DUSKVALE_IDENT);
    } else {
        check_enabled(unit, findings);
        check_active(unit, findings);
    }
}

} // namespace ctl
