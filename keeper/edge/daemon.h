/* The daemon's object on the bus: its announcements in, calls to it out. Nothing here waits. */
#pragma once

#include "keeper/edge/call.h"

#include <atomic>

namespace keeper {

class Daemon {
public:
    /* `told` gets DaemonAppeared and DaemonVanished, and what the daemon announces. */
    Daemon(GDBusConnection *bus, Told told);

    /* Tells of the last keep-alive of this node that came back, if one has since the last call:
       nobody else does, so that a cluster at rest wakes the main loop for none. */
    void tell_kept_alive();
    /* Each leads to one input, SnapshotRead, TakeOverAnswered or BusAnswered; but a state that
       cannot be read is only logged. */
    void read_snapshot();
    void take_over();
    void ping_bus();
    /* Any other call, whose answer says nothing. */
    void send(const client::Call &asked) const;

private:
    static void on_appeared(GDBusConnection *, const gchar *, const gchar *,
                            gpointer self) noexcept;
    static void on_vanished(GDBusConnection *, const gchar *, gpointer self) noexcept;
    static void on_signal(GDBusConnection *, const gchar *sender, const gchar *path,
                          const gchar *interface, const gchar *name, GVariant *arguments,
                          gpointer self) noexcept;

    static GDBusMessage *on_message(GDBusConnection *, GDBusMessage *message, gboolean incoming,
                                    gpointer self) noexcept;

    GDBusConnection *bus;
    Told told;
    /* These two also by the thread of the bus. */
    std::atomic<NodeId> local{0};
    std::atomic<Time> kept_alive_at{Time(0)};
    bool name_was_seen = false; /* with an owner or without one */
};

} // namespace keeper
