#include "ctl/ask/bus.h"

#include "base/paths.h"

#include <glib-unix.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <csignal>

namespace ctl {

namespace {

/* The daemon answers every call from its loop at once; far more means that it is held up. */
constexpr int answer_limit_ms = 5000;

/* A move waits up to 10 s for run steps of its target, and then takes up to 4 s. */
constexpr int move_limit_ms = 20000;

bool keeper_is_absent(const GError *error) {
    return g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_SERVICE_UNKNOWN) ||
           g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_NAME_HAS_NO_OWNER);
}

constexpr const char *bus_name = "org.freedesktop.DBus";
constexpr const char *bus_path = "/org/freedesktop/DBus";

} // namespace

Deadline after(double seconds) {
    return g_get_monotonic_time() + std::llround(seconds * G_USEC_PER_SEC);
}

bool passed(const Deadline &deadline) {
    return deadline && g_get_monotonic_time() >= *deadline;
}

Bus::~Bus() {
    if (connection) {
        g_signal_handlers_disconnect_by_data(connection.get(), this);
        for (const guint subscription : subscriptions) {
            g_dbus_connection_signal_unsubscribe(connection.get(), subscription);
        }
    }
}

void Bus::connect() {
    g_autoptr(GError) error = nullptr;
    connection.reset(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &error));
    if (!connection) {
        throw classify_connection(error);
    }
    g_dbus_connection_set_exit_on_close(connection.get(), FALSE);
    const auto on_closed = [](GDBusConnection *, gboolean, GError *, gpointer self) noexcept {
        static_cast<Bus *>(self)->push(BusLost{});
    };
    g_signal_connect(connection.get(), "closed", reinterpret_cast<GCallback>(+on_closed), this);
}

void Bus::listen() {
    const auto on_signal = [](GDBusConnection *, const gchar *, const gchar *,
                              const gchar *interface, const gchar *name, GVariant *arguments,
                              gpointer self) noexcept {
        auto *bus = static_cast<Bus *>(self);
        const gchar *text = "";
        if (g_str_equal(interface, bus_name)) {
            g_variant_get(arguments, "(&s&s&s)", nullptr, nullptr, &text);
            bus->push(*text != '\0' ? News::Content(DaemonAppeared{}) : DaemonVanished{});
        } else if (g_str_equal(interface, DUSKVALE_KEEPER_BUS_NAME)) {
            if (g_variant_is_of_type(arguments, G_VARIANT_TYPE("(s)"))) {
                g_variant_get(arguments, "(&s)", &text);
                bus->push(KeeperLogged{text});
            }
        } else if (auto known = client::read_announcement(name, arguments)) {
            bus->push(std::move(*known));
        }
    };
    const auto subscribe = [&](const char *sender, const char *signal, const char *path,
                               const char *about) {
        subscriptions.push_back(g_dbus_connection_signal_subscribe(
            connection.get(), sender, sender, signal, path, about, G_DBUS_SIGNAL_FLAGS_NONE,
            on_signal, this, nullptr));
    };
    subscribe(DUSKVALE_KEEPER_BUS_NAME, "Logged", DUSKVALE_KEEPER_BUS_PATH, nullptr);
    subscribe(DUSKVALE_BUS_NAME, nullptr, DUSKVALE_BUS_PATH, nullptr);
    subscribe(bus_name, "NameOwnerChanged", bus_path, DUSKVALE_BUS_NAME);
}

void Bus::watch_output() {
    const auto on_closed = [](gint, GIOCondition, gpointer self) noexcept -> gboolean {
        auto *bus = static_cast<Bus *>(self);
        bus->push(OutputClosed{});
        /* The descriptor stays ready for ever; once is enough. */
        bus->output_source.release();
        return G_SOURCE_REMOVE;
    };
    std::signal(SIGPIPE, SIG_IGN);
    output_source = client::Source(g_unix_fd_add(
        STDOUT_FILENO, static_cast<GIOCondition>(G_IO_ERR | G_IO_HUP), on_closed, this));
}

Result<client::Snapshot> Bus::read() {
    const Result<client::Variant> answer =
        call(DUSKVALE_BUS_NAME, DUSKVALE_BUS_PATH, client::get_all(DUSKVALE_BUS_INTERFACE));
    if (!answer) {
        return answer.problem();
    }
    std::string fault;
    const std::optional<client::Snapshot> snapshot = client::read_snapshot(answer->get(), &fault);
    return snapshot ? Result(*snapshot)
                    : Result<client::Snapshot>(Problem{ProblemKind::failed, fault});
}

Result<bool> Bus::ask(const client::Call &asked) {
    const Result<client::Variant> answer = call(DUSKVALE_BUS_NAME, DUSKVALE_BUS_PATH, asked);
    if (!answer) {
        return answer.problem();
    }
    const std::optional<bool> status = client::read_status(answer->get());
    return status ? Result(*status)
                  : Result<bool>(Problem{ProblemKind::failed, std::string("to ") + asked.method});
}

KeeperView Bus::read_keeper() {
    const Reply reply = send(DUSKVALE_KEEPER_BUS_NAME, DUSKVALE_KEEPER_BUS_PATH,
                             client::get_all(DUSKVALE_KEEPER_BUS_NAME), answer_limit_ms);
    if (!reply.value) {
        const bool absent = keeper_is_absent(reply.error.get());
        return {.state = std::nullopt,
                .absent = absent,
                .why_not = absent ? "no keeper runs on this node"
                                  : "the keeper of this node does not answer"};
    }
    return {.state = client::read_keeper(reply.value.get()),
            .why_not = "the keeper of this node gave an unexpected answer"};
}

KeeperAnswer Bus::ask_keeper(const client::Call &call) {
    const Reply reply =
        send(DUSKVALE_KEEPER_BUS_NAME, DUSKVALE_KEEPER_BUS_PATH, call, move_limit_ms);
    if (!reply.value) {
        GError *error = reply.error.get();
        g_dbus_error_strip_remote_error(error);
        return {.absent = keeper_is_absent(error),
                .text = g_error_matches(error, G_IO_ERROR, G_IO_ERROR_TIMED_OUT)
                            ? "the keeper does not answer; it may still do it"
                            : error->message};
    }
    const char *text = "";
    if (g_variant_is_of_type(reply.value.get(), G_VARIANT_TYPE("(s)"))) {
        g_variant_get(reply.value.get(), "(&s)", &text);
    }
    return {.done = true, .text = text};
}

std::optional<News> Bus::next(const Deadline &deadline) {
    client::Source timer;
    if (deadline) {
        /* Rounded up: woken a moment early, the loop would spin through the rest. */
        const int64_t left_ms = (*deadline - g_get_monotonic_time() + 999) / 1000;
        const auto wake = [](gpointer) noexcept -> gboolean { return G_SOURCE_CONTINUE; };
        timer = client::Source(
            g_timeout_add(static_cast<guint>(std::max<int64_t>(left_ms, 0)), wake, nullptr));
    }
    while (queue.empty() && !passed(deadline)) {
        g_main_context_iteration(nullptr, TRUE);
    }
    if (queue.empty()) {
        return std::nullopt;
    }
    News news = std::move(queue.front());
    queue.pop_front();
    return news;
}

Bus::Reply Bus::send(const char *name, const char *path, const client::Call &call, int limit_ms) {
    const auto on_reply = [](GObject *source, GAsyncResult *result, gpointer data) noexcept {
        auto *reply = static_cast<Reply *>(data);
        g_autoptr(GError) error = nullptr;
        reply->value.reset(
            g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, &error));
        reply->error.reset(g_steal_pointer(&error));
    };
    Reply reply;
    /* Not g_dbus_connection_call_sync(): it would overtake announcements that came before. */
    g_dbus_connection_call(connection.get(), name, path, call.interface, call.method,
                           call.arguments.get(), nullptr, G_DBUS_CALL_FLAGS_NO_AUTO_START, limit_ms,
                           nullptr, on_reply, &reply);
    while (!reply.value && !reply.error) {
        g_main_context_iteration(nullptr, TRUE);
    }
    return reply;
}

Result<client::Variant> Bus::call(const char *name, const char *path, const client::Call &call) {
    Reply reply = send(name, path, call, answer_limit_ms);
    if (!reply.value) {
        return classify_call(reply.error.get());
    }
    return std::move(reply.value);
}

void Bus::push(News::Content content) {
    queue.push_back({std::move(content), g_get_real_time()});
}

Result<client::Snapshot> open_daemon(Bus &bus, bool listen) {
    try {
        bus.connect();
    } catch (const Problem &problem) {
        return problem;
    }
    if (listen) {
        bus.listen();
    }
    return bus.read();
}

KeeperView read_keeper(Bus &bus, const Result<client::Snapshot> &daemon) {
    return daemon || daemon.problem().is_absence() ? bus.read_keeper() : KeeperView();
}

} // namespace ctl
