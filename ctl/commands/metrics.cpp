#include "ctl/ask/bus.h"
#include "ctl/commands/commands.h"
#include "ctl/print/text.h"

#include "version.h"

namespace ctl {

namespace {

/* Gauges only: readers of the older text format, such as file collectors, know no other type that
   would fit. */
void gauge(const char *name, const char *help, int64_t value, const std::string &labels = "") {
    print(std::string("# HELP duskvale_") + name + " " + help + "\n# TYPE duskvale_" + name +
          " gauge\nduskvale_" + name + labels + " " + std::to_string(value) + "\n");
}

std::string label_value(const std::string &text) {
    std::string value;
    for (const char c : text) {
        if (c == '\\' || c == '"') {
            value += '\\';
        }
        if (c == '\n') {
            value += "\\n";
        } else {
            value += c;
        }
    }
    return value;
}

void print_state(const client::Snapshot &now) {
    gauge("daemon", "The daemon that answered; always 1.", 1,
          "{interface_version=\"" + label_value(now.interface_version) +
              "\",program_version=\"" DUSKVALE_VERSION "\",node=\"" +
              std::to_string(now.local_node) + "\"}");
    gauge("master_node", "Node id of the master, 0 while none is known.", now.master_node);
    gauge("is_master", "Whether this node is the master.", now.is_master ? 1 : 0);
    gauge("members", "Members of the group.", now.members);
    gauge("frozen_node", "Node id that mastership is frozen to, 0 while it is not.",
          now.frozen_node);
    gauge("preferred", "Whether this node is preferred as master.", now.preferred ? 1 : 0);
    gauge("in_transition", "Whether this node's run steps for its role are not done.",
          now.in_transition ? 1 : 0);
    gauge("devices", "Devices attached to this node.", now.devices);
}

} // namespace

int command_metrics(const Options &) {
    Bus bus;
    const Result<client::Snapshot> now = open_daemon(bus);
    gauge("up", "Whether the daemon answered on the system bus.", now ? 1 : 0);
    if (now) {
        print_state(*now);
    }
    print("# EOF\n");
    /* A collector must get the figure that shows the outage, so an outage is not a failure here. */
    return Exit::ok;
}

} // namespace ctl
