/* What systemd knows of the daemon's unit: what "systemctl show" prints of it. */
#pragma once

#include <map>
#include <string>

namespace ctl {

struct UnitView {
    bool booted = false;                           /* systemd is the init system here */
    std::string fault;                             /* why systemctl did not tell; "" when it did */
    std::map<std::string, std::string> properties; /* systemd.directives(7); empty with a fault */

    /* Empty for one that was not told. */
    std::string property(const std::string &name) const;
    /* Whether a start is under way that still waits for corosync's ring. */
    bool waits_for_ring() const { return property("SubState") == "start-pre"; }
};

UnitView view_unit();

} // namespace ctl
