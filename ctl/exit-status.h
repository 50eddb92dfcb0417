/* How duskvalectl ends. The numbers are a contract with scripts: they are only ever added to. */
#pragma once

namespace ctl {

struct Exit {
    enum : int {
        ok = 0,
        failed = 1,
        usage = 2,
        refused = 3,
        not_running = 4,
        timed_out = 5,
        not_permitted = 6,
        bus_unreachable = 7,
        no_corosync = 8,
    };
};

/* What `check` and `doctor` end with instead, as monitoring systems want it. */
struct CheckExit {
    enum : int { ok = 0, warning = 1, critical = 2, unknown = 3 };
};

} // namespace ctl
