#include "ctl/doctor/checks.h"

#include "base/paths.h"

namespace ctl {

namespace {

void check_enabled(const UnitFacts &unit, Findings &findings) {
    const std::string state = unit.property("UnitFileState");
    if (state == "enabled") {
        findings.ok("it is enabled: started at boot, and with corosync");
    } else {
        findings.warning("it is not started at boot: " + printable(state),
                         "systemctl enable " DUSKVALE_IDENT);
    }
    if (unit.property("NeedDaemonReload") == "yes") {
        findings.warning("its file has changed, and systemd has not read it since",
                         "systemctl daemon-reload");
    }
}

void check_active(const UnitFacts &unit, Findings &findings) {
    const std::string state = unit.property("ActiveState");
    const std::string restarts = unit.property("NRestarts");
    const std::string text =
        "it is " + printable(state) + " (" + printable(unit.property("SubState")) + ")";
    if (state == "active") {
        findings.ok(text);
    } else if (state == "failed") {
        /* Result is that of the last end, mostly also when systemd has given up restarting. */
        findings.critical(text + ": " + printable(unit.property("Result")) +
                              "; restarts before that: " + printable(restarts),
                          "journalctl -u " DUSKVALE_IDENT " -e; when the cause is fixed: "
                          "systemctl reset-failed " DUSKVALE_IDENT ", then systemctl start it");
    } else if (state == "inactive") {
        findings.critical(text, "systemctl start " DUSKVALE_IDENT);
    } else if (unit.waits_for_ring()) {
        findings.warning(text + ": it waits for the ring, for quorum, or after failed starts",
                         "journalctl -u " DUSKVALE_IDENT " -e");
    } else {
        findings.warning(text, "systemctl status " DUSKVALE_IDENT);
    }
}

} // namespace

void check_unit(const Facts &facts, Findings &findings) {
    const UnitFacts &unit = facts.unit;
    const std::string load = unit.property("LoadState");
    if (!unit.booted) {
        findings.note("systemd is not running here, so its unit is not checked");
    } else if (!unit.fault.empty()) {
        findings.unknown("systemctl could not be asked: " + printable(unit.fault));
    } else if (load == "masked") {
        findings.critical("it is masked: nothing can start it", "systemctl unmask " DUSKVALE_IDENT);
    } else if (load != "loaded") {
        findings.critical("systemd has no usable unit: " + printable(load),
                          "systemctl daemon-reload; apt-get install --reinstall " DUSKVALE_IDENT);
    } else {
        check_enabled(unit, findings);
        check_active(unit, findings);
    }
}

} // namespace ctl
