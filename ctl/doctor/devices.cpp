#include "ctl/doctor/checks.h"

#include "client/handle.h"

#include "base/paths.h"

#include <glob.h>
#include <unistd.h>

namespace ctl {

namespace {

constexpr const char *driver_directory = "/sys/bus/lumacrates";

std::size_t attached_devices() {
    glob_t found = {};
    const std::unique_ptr<glob_t, client::Release<globfree>> owner(&found);
    return glob(DUSKVALE_DEVICES_PATTERN, 0, nullptr, &found) == 0 ? found.gl_pathc : 0;
}

} // namespace

void check_devices(const Facts &facts, Findings &findings) {
    const std::size_t attached = attached_devices();
    if (facts.daemon && facts.daemon->devices != static_cast<int>(attached)) {
        findings.warning(counted(attached, "device") + " attached, but the daemon counts " +
                             std::to_string(facts.daemon->devices) + ": a report was lost",
                         "duskvalectl hotplug add DEVPATH for one in " +
                             std::string(driver_directory) +
                             "/devices: the daemon then counts again");
    } else if (access(driver_directory, F_OK) == 0) {
        findings.ok("the driver is there, with " + counted(attached, "device"));
    } else {
        findings.note("the Lumacrate driver is not loaded: this node has no devices");
    }
}

} // namespace ctl
