/* The doctor's checks, a file each: every one adds what it finds. */
#pragma once

#include "ctl/ask/bus.h"
#include "ctl/doctor/corosync-view.h"
#include "ctl/doctor/finding.h"
#include "ctl/doctor/unit-view.h"

#include <optional>

namespace ctl {

/* What more than one of them needs. */
struct Facts {
    CorosyncView corosync;
    UnitView unit;
    std::optional<Problem> bus; /* why the bus cannot be reached */
    Result<Owner> owner = Problem{};
    Result<client::Snapshot> daemon = Problem{};
};

void check_corosync(const Facts &facts, Findings &findings);
void check_bus(const Facts &facts, Findings &findings);
void check_daemon(const Facts &facts, Findings &findings);
void check_unit(const Facts &facts, Findings &findings);
void check_settings(const Facts &facts, Findings &findings);
void check_steps(const Facts &facts, Findings &findings);
void check_devices(const Facts &facts, Findings &findings);

} // namespace ctl
