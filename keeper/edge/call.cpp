#include "keeper/edge/call.h"

namespace keeper {

namespace {

using Answered = std::function<void(const Reply &)>;

void on_answer(GObject *bus, GAsyncResult *result, gpointer user_data) noexcept {
    const std::unique_ptr<Answered> answered(static_cast<Answered *>(user_data));
    GError *error = nullptr;
    const client::Variant arguments(
        g_dbus_connection_call_finish(G_DBUS_CONNECTION(bus), result, &error));
    const client::Error owned(error);
    (*answered)({arguments.get(), error != nullptr ? error->message : ""});
}

gboolean on_main_loop(gpointer user_data) noexcept {
    const std::unique_ptr<std::function<void()>> callback(
        static_cast<std::function<void()> *>(user_data));
    (*callback)();
    return G_SOURCE_REMOVE;
}

} // namespace

void call(GDBusConnection *bus, const char *name, const char *path, const client::Call &asked,
          Answered answered) {
    const bool wanted = static_cast<bool>(answered);
    g_dbus_connection_call(bus, name, path, asked.interface, asked.method, asked.arguments.get(),
                           nullptr, G_DBUS_CALL_FLAGS_NO_AUTO_START, G_MAXINT, nullptr,
                           wanted ? on_answer : nullptr,
                           wanted ? new Answered(std::move(answered)) : nullptr);
}

void call_on_main_loop(std::function<void()> callback) {
    /* Not g_idle_add(): what waits here is as urgent as what the bus brings. */
    g_idle_add_full(G_PRIORITY_DEFAULT, on_main_loop,
                    new std::function<void()>(std::move(callback)), nullptr);
}

Time now() {
    return std::chrono::duration_cast<Time>(std::chrono::microseconds(g_get_monotonic_time()));
}

} // namespace keeper
