#include "ctl/ask/request.h"
#include "ctl/commands/commands.h"
#include "ctl/print/text.h"

namespace ctl {

namespace {

/* An attribute of the device, for the daemon's debug lines; empty when it cannot be read. */
std::string attribute(const std::string &device, const char *name) {
    g_autofree char *content = nullptr;
    const std::string path = device + "/" + name;
    if (!g_file_get_contents(path.c_str(), &content, nullptr, nullptr)) {
        return {};
    }
    g_autofree char *valid = g_utf8_make_valid(g_strchomp(content), -1);
    return valid;
}

} // namespace

int command_hotplug(const Options &options) {
    std::string device = options.devpath;
    /* The kernel names devices from the root of sysfs, and so does udev's DEVPATH. */
    if (device.starts_with("/devices/")) {
        device = "/sys" + device;
    }
    if (!device.starts_with("/")) {
        throw WrongLine{options.command,
                        "DEVPATH must be an absolute path, such as /sys/devices/..."};
    }
    const bool added = options.word == "add";
    const std::string hardware = added ? attribute(device, "hardware_id") : "";
    const std::string location = added ? attribute(device, "location") : "";
    return send_call(client::hotplug(added, device, hardware, location),
                     "reported " + printable(device) + (added ? " as added" : " as removed"));
}

} // namespace ctl
