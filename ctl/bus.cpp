#include "ctl/bus.h"

#include "base/paths.h"

#include <gio/gio.h>
#include <glib-unix.h>
#include <unistd.h>

#include <csignal>
#include <cstring>

namespace ctl {

namespace {

/* The daemon answers every call from its loop at once; far more means that it is held up. */
constexpr int answer_limit_ms = 5000;

constexpr const char *properties_interface = "org.freedesktop.DBus.Properties";
constexpr const char *bus_driver = "org.freedesktop.DBus";
constexpr const char *bus_driver_path = "/org/freedesktop/DBus";

struct Answer {
    bool arrived = false;
    GVariant *value = nullptr;
    GError *error = nullptr;
};

void on_answer(GObject *source, GAsyncResult *result, gpointer data) noexcept {
    auto *answer = static_cast<Answer *>(data);
    answer->value =
        g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, &answer->error);
    answer->arrived = true;
}

gboolean on_deadline(gpointer reached) noexcept {
    *static_cast<bool *>(reached) = true;
    return G_SOURCE_REMOVE;
}

} // namespace

Deadline after(std::chrono::microseconds duration) {
    return g_get_monotonic_time() + duration.count();
}

bool passed(const Deadline &deadline) {
    return deadline && g_get_monotonic_time() >= *deadline;
}

Bus::~Bus() {
    for (const guint source : sources) {
        g_source_remove(source);
    }
    if (output_source != 0) {
        g_source_remove(output_source);
    }
    if (connection == nullptr) {
        return;
    }
    g_signal_handlers_disconnect_by_data(connection, this);
    for (const guint subscription : subscriptions) {
        g_dbus_connection_signal_unsubscribe(connection, subscription);
    }
    g_object_unref(connection);
}

std::optional<Problem> Bus::connect() {
    g_autoptr(GError) error = nullptr;
    g_autofree char *address = g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
    if (address != nullptr) {
        const auto flags =
            static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                              G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
        connection =
            g_dbus_connection_new_for_address_sync(address, flags, nullptr, nullptr, &error);
    }
    if (connection == nullptr) {
        return classify_connection(error);
    }
    g_signal_connect(connection, "closed", reinterpret_cast<GCallback>(on_closed), this);
    return std::nullopt;
}

void Bus::listen() {
    subscriptions.push_back(g_dbus_connection_signal_subscribe(
        connection, DUSKVALE_BUS_NAME, DUSKVALE_BUS_NAME, nullptr, DUSKVALE_BUS_PATH, nullptr,
        G_DBUS_SIGNAL_FLAGS_NONE, on_signal, this, nullptr));
    subscriptions.push_back(g_dbus_connection_signal_subscribe(
        connection, bus_driver, bus_driver, "NameOwnerChanged", bus_driver_path, DUSKVALE_BUS_NAME,
        G_DBUS_SIGNAL_FLAGS_NONE, on_owner, this, nullptr));
}

void Bus::catch_endings() {
    std::signal(SIGPIPE, SIG_IGN);
    sources.push_back(g_unix_signal_add(SIGINT, on_interrupt, this));
    sources.push_back(g_unix_signal_add(SIGTERM, on_interrupt, this));
    output_source = g_unix_fd_add(STDOUT_FILENO, static_cast<GIOCondition>(G_IO_ERR | G_IO_HUP),
                                  on_output_closed, this);
}

Result<Snapshot> Bus::read() {
    const Result<GVariant *> answer =
        call(properties_interface, "GetAll", g_variant_new("(s)", DUSKVALE_BUS_NAME));
    if (!answer) {
        return answer.problem();
    }
    g_autoptr(GVariant) value = *answer;
    return read_snapshot(value);
}

Result<Owner> Bus::owner() {
    const Result<uint32_t> user = ask_about_name("GetConnectionUnixUser");
    if (!user) {
        return user.problem();
    }
    const Result<uint32_t> process = ask_about_name("GetConnectionUnixProcessID");
    if (!process) {
        return process.problem();
    }
    return Owner{*user, *process};
}

Result<bool> Bus::ask(const char *method, GVariant *arguments) {
    const Result<GVariant *> answer = call(DUSKVALE_BUS_NAME, method, arguments);
    if (!answer) {
        return answer.problem();
    }
    g_autoptr(GVariant) value = *answer;
    gboolean accepted = TRUE;
    if (g_variant_is_of_type(value, G_VARIANT_TYPE("(b)"))) {
        g_variant_get(value, "(b)", &accepted);
    } else if (!g_variant_is_of_type(value, G_VARIANT_TYPE("()"))) {
        return Problem{ProblemKind::failed, std::string("to ") + method};
    }
    return accepted != FALSE;
}

std::optional<Problem> Bus::set_preferred(bool preferred) {
    const Result<GVariant *> answer =
        call(properties_interface, "Set",
             g_variant_new("(ssv)", DUSKVALE_BUS_NAME, "PreferredMaster",
                           g_variant_new_boolean(preferred ? TRUE : FALSE)));
    if (!answer) {
        return answer.problem();
    }
    g_variant_unref(*answer);
    return std::nullopt;
}

std::optional<Notice> Bus::next(const Deadline &deadline) {
    bool reached = passed(deadline);
    guint timer = 0;
    if (deadline && !reached) {
        /* Rounded up: woken a moment early, the loop would spin through the rest. */
        const int64_t left = (*deadline - g_get_monotonic_time() + 999) / 1000;
        timer = g_timeout_add(static_cast<guint>(MAX(left, 0)), on_deadline, &reached);
    }
    while (queue.empty() && !reached) {
        g_main_context_iteration(nullptr, TRUE);
    }
    if (timer != 0 && !reached) {
        g_source_remove(timer);
    }
    if (queue.empty()) {
        return std::nullopt;
    }
    Notice notice = std::move(queue.front());
    queue.pop_front();
    return notice;
}

Result<GVariant *> Bus::call(const char *interface, const char *method, GVariant *arguments) {
    Answer answer;
    /* The bus has methods of its own name only. */
    const bool of_bus = std::strcmp(interface, bus_driver) == 0;
    /* Not g_dbus_connection_call_sync(): it would overtake announcements that came before. */
    g_dbus_connection_call(connection, of_bus ? bus_driver : DUSKVALE_BUS_NAME,
                           of_bus ? bus_driver_path : DUSKVALE_BUS_PATH, interface, method,
                           arguments, nullptr, G_DBUS_CALL_FLAGS_NO_AUTO_START, answer_limit_ms,
                           nullptr, on_answer, &answer);
    while (!answer.arrived) {
        g_main_context_iteration(nullptr, TRUE);
    }
    g_autoptr(GError) error = answer.error;
    if (answer.value == nullptr) {
        return classify_call(error);
    }
    return answer.value;
}

Result<uint32_t> Bus::ask_about_name(const char *method) {
    const Result<GVariant *> answer =
        call(bus_driver, method, g_variant_new("(s)", DUSKVALE_BUS_NAME));
    if (!answer) {
        return answer.problem();
    }
    g_autoptr(GVariant) value = *answer;
    if (!g_variant_is_of_type(value, G_VARIANT_TYPE("(u)"))) {
        return Problem{ProblemKind::failed, std::string("to ") + method};
    }
    uint32_t number = 0;
    g_variant_get(value, "(u)", &number);
    return number;
}

void Bus::push(NoticeKind kind) {
    Notice notice;
    notice.kind = kind;
    notice.time = g_get_real_time();
    queue.push_back(std::move(notice));
}

void Bus::on_signal(GDBusConnection *, const gchar *, const gchar *, const gchar *,
                    const gchar *name, GVariant *arguments, gpointer self) noexcept {
    if (std::optional<Notice> notice = read_notice(name, arguments)) {
        static_cast<Bus *>(self)->queue.push_back(std::move(*notice));
    }
}

void Bus::on_owner(GDBusConnection *, const gchar *, const gchar *, const gchar *, const gchar *,
                   GVariant *arguments, gpointer self) noexcept {
    const gchar *new_owner = nullptr;
    g_variant_get(arguments, "(&s&s&s)", nullptr, nullptr, &new_owner);
    static_cast<Bus *>(self)->push(*new_owner != '\0' ? NoticeKind::daemon_appeared
                                                      : NoticeKind::daemon_vanished);
}

void Bus::on_closed(GDBusConnection *, gboolean, GError *, gpointer self) noexcept {
    static_cast<Bus *>(self)->push(NoticeKind::bus_lost);
}

gboolean Bus::on_interrupt(gpointer self) noexcept {
    static_cast<Bus *>(self)->push(NoticeKind::interrupted);
    return G_SOURCE_CONTINUE;
}

gboolean Bus::on_output_closed(gint, GIOCondition, gpointer self) noexcept {
    auto *bus = static_cast<Bus *>(self);
    bus->push(NoticeKind::output_closed);
    /* The descriptor stays ready for ever; once is enough. */
    bus->output_source = 0;
    return G_SOURCE_REMOVE;
}

Result<Snapshot> open_daemon(Bus &bus, bool listen) {
    if (const std::optional<Problem> problem = bus.connect()) {
        return *problem;
    }
    if (listen) {
        bus.listen();
    }
    return bus.read();
}

} // namespace ctl
