#include "keeper/edge/call.h"

#include <glob.h>

namespace keeper {

using Answered = std::function<void(const Reply &)>;
using Callback = std::function<void()>;

static void on_answer(GObject *bus, GAsyncResult *result, gpointer user_data) noexcept {
    const std::unique_ptr<Answered> answered(static_cast<Answered *>(user_data));
    g_autoptr(GError) error = nullptr;
    const client::Variant arguments(
        g_dbus_connection_call_finish(G_DBUS_CONNECTION(bus), result, &error));
    (*answered)({arguments.get(), error != nullptr ? error->message : ""});
}

static gboolean on_main_loop(gpointer user_data) noexcept {
    const std::unique_ptr<Callback> callback(static_cast<Callback *>(user_data));
    (*callback)();
    return G_SOURCE_REMOVE;
}

Input input_of(const client::Announcement &announcement) {
    return std::visit([](const auto &news) { return Input(news); }, announcement);
}

void call(GDBusConnection *bus, const char *name, const char *path, const client::Call &asked,
          Answered answered) {
    const bool wanted = static_cast<bool>(answered);
    g_dbus_connection_call(bus, name, path, asked.interface, asked.method, asked.arguments.get(),
                           nullptr, G_DBUS_CALL_FLAGS_NO_AUTO_START, G_MAXINT, nullptr,
                           wanted ? on_answer : nullptr,
                           wanted ? new Answered(std::move(answered)) : nullptr);
}

void call_on_main_loop(Callback callback) {
    /* Not g_idle_add(): what waits here is as urgent as what the bus brings. */
    g_idle_add_full(G_PRIORITY_DEFAULT, on_main_loop, new Callback(std::move(callback)), nullptr);
}

std::vector<std::string> paths(const std::string &pattern) {
    glob_t found{};
    glob(pattern.c_str(), 0, nullptr, &found);
    std::vector<std::string> list(found.gl_pathv, found.gl_pathv + found.gl_pathc);
    globfree(&found);
    return list;
}

Time now() {
    return std::chrono::duration_cast<Time>(std::chrono::microseconds(g_get_monotonic_time()));
}

} // namespace keeper
