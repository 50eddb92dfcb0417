#include "keeper/edge/pulse.h"

#include "keeper/edge/log.h"

#include "base/paths.h"

#include <glib-unix.h>

namespace keeper {

Pulse::Pulse(Deliver deliver_) : deliver(std::move(deliver_)) {
    if (sd_bus_open_system(&bus) < 0 ||
        sd_bus_match_signal(bus, nullptr, DUSKVALE_BUS_NAME, DUSKVALE_BUS_PATH,
                            DUSKVALE_BUS_INTERFACE, "NotifyKeepAlive", on_keep_alive, this) < 0) {
        give_up("no connection to the system bus for keep-alives");
    }
    g_unix_fd_add(sd_bus_get_fd(bus), G_IO_IN, on_ready, this);
}

int Pulse::on_keep_alive(sd_bus_message *message, void *self, sd_bus_error *) noexcept {
    NodeId node = 0;
    if (sd_bus_message_read(message, "u", &node) > 0) {
        static_cast<Pulse *>(self)->deliver(KeepAlive{node});
    }
    return 0;
}

gboolean Pulse::on_ready(gint, GIOCondition, gpointer self) noexcept {
    int more;
    while ((more = sd_bus_process(static_cast<Pulse *>(self)->bus, nullptr)) > 0) {
    }
    if (more < 0) {
        give_up("the connection to the system bus for keep-alives is lost");
    }
    return G_SOURCE_CONTINUE;
}

void Pulse::send() {
    sd_bus_call_method_async(bus, nullptr, DUSKVALE_BUS_NAME, DUSKVALE_BUS_PATH,
                             DUSKVALE_BUS_INTERFACE, "KeepAlive", nullptr, nullptr, "");
}

} // namespace keeper
