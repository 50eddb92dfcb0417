#include "keeper/edge/pulse.h"

#include "keeper/edge/log.h"

#include "base/paths.h"

#include <glib-unix.h>

namespace keeper {

static int on_keep_alive(sd_bus_message *message, void *deliver, sd_bus_error *) noexcept {
    NodeId node = 0;
    if (sd_bus_message_read(message, "u", &node) > 0) {
        (*static_cast<Deliver *>(deliver))(KeepAlive{node});
    }
    return 0;
}

static gboolean on_ready(gint, GIOCondition, gpointer bus) noexcept {
    int more;
    while ((more = sd_bus_process(static_cast<sd_bus *>(bus), nullptr)) > 0) {
    }
    if (more < 0) {
        give_up("the connection to the system bus for keep-alives is lost");
    }
    return G_SOURCE_CONTINUE;
}

sd_bus *follow_keep_alives(Deliver &deliver) {
    sd_bus *bus = nullptr;
    if (sd_bus_open_system(&bus) < 0 ||
        sd_bus_match_signal(bus, nullptr, DUSKVALE_BUS_NAME, DUSKVALE_BUS_PATH,
                            DUSKVALE_BUS_INTERFACE, "NotifyKeepAlive", on_keep_alive,
                            &deliver) < 0) {
        give_up("no connection to the system bus for keep-alives");
    }
    g_unix_fd_add(sd_bus_get_fd(bus), G_IO_IN, on_ready, bus);
    return bus;
}

void send_keep_alive(sd_bus *bus) {
    sd_bus_call_method_async(bus, nullptr, DUSKVALE_BUS_NAME, DUSKVALE_BUS_PATH,
                             DUSKVALE_BUS_INTERFACE, "KeepAlive", nullptr, nullptr, "");
}

} // namespace keeper
