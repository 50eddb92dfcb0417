/* How duskvalectl ends. The numbers are a contract with scripts: they are only ever added to. */
#pragma once

namespace ctl {

struct Exit {
    static constexpr int ok = 0;
    static constexpr int failed = 1;
    static constexpr int usage = 2;
    static constexpr int refused = 3;
    static constexpr int not_running = 4;
    static constexpr int timed_out = 5;
    static constexpr int not_permitted = 6;
    static constexpr int bus_unreachable = 7;
    static constexpr int no_corosync = 8;
};

/* What `check` and `doctor` end with instead, as monitoring systems want it. */
struct CheckExit {
    static constexpr int ok = 0;
    static constexpr int warning = 1;
    static constexpr int critical = 2;
    static constexpr int unknown = 3;
};

} // namespace ctl
