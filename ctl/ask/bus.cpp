#include "ctl/ask/bus.h"

#include "base/paths.h"

#include <glib-unix.h>
#include <unistd.h>

#include <cmath>
#include <csignal>

namespace ctl {

/* An object on the bus to call: the daemon's, the keeper's, or that of the bus itself. */
struct Bus::Peer {
    const char *name;
    const char *path;
};

constexpr Bus::Peer Bus::daemon{DUSKVALE_BUS_NAME, DUSKVALE_BUS_PATH};
constexpr Bus::Peer Bus::keeper{DUSKVALE_KEEPER_BUS_NAME, DUSKVALE_KEEPER_BUS_PATH};
constexpr Bus::Peer Bus::driver{"org.freedesktop.DBus", "/org/freedesktop/DBus"};

namespace {

/* The daemon answers every call from its loop at once; far more means that it is held up. */
constexpr int answer_limit_ms = 5000;

/* A move waits up to 10 s for run steps of its target, and then takes up to 4 s. */
constexpr int move_limit_ms = 20000;

bool keeper_is_absent(const GError *error) {
    return g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_SERVICE_UNKNOWN) ||
           g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_NAME_HAS_NO_OWNER);
}

gboolean on_deadline(gpointer reached) noexcept {
    *static_cast<bool *>(reached) = true;
    return G_SOURCE_REMOVE;
}

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

std::optional<Problem> Bus::connect() {
    g_autoptr(GError) error = nullptr;
    g_autofree char *address = g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
    if (address != nullptr) {
        const auto flags =
            static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                              G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
        connection.reset(
            g_dbus_connection_new_for_address_sync(address, flags, nullptr, nullptr, &error));
    }
    if (!connection) {
        return classify_connection(error);
    }
    g_signal_connect(connection.get(), "closed", reinterpret_cast<GCallback>(on_closed), this);
    return std::nullopt;
}

void Bus::listen() {
    subscriptions.push_back(g_dbus_connection_signal_subscribe(
        connection.get(), DUSKVALE_BUS_NAME, DUSKVALE_BUS_NAME, nullptr, DUSKVALE_BUS_PATH, nullptr,
        G_DBUS_SIGNAL_FLAGS_NONE, on_signal, this, nullptr));
    subscriptions.push_back(g_dbus_connection_signal_subscribe(
        connection.get(), driver.name, driver.name, "NameOwnerChanged", driver.path,
        DUSKVALE_BUS_NAME, G_DBUS_SIGNAL_FLAGS_NONE, on_owner, this, nullptr));
}

void Bus::catch_endings() {
    std::signal(SIGPIPE, SIG_IGN);
    sources.emplace_back(g_unix_signal_add(SIGINT, on_interrupt, this));
    sources.emplace_back(g_unix_signal_add(SIGTERM, on_interrupt, this));
    output_source = client::Source(g_unix_fd_add(
        STDOUT_FILENO, static_cast<GIOCondition>(G_IO_ERR | G_IO_HUP), on_output_closed, this));
}

Result<client::Snapshot> Bus::read() {
    const Result<client::Variant> answer = call(daemon, client::get_all());
    if (!answer) {
        return answer.problem();
    }
    std::string fault;
    const std::optional<client::Snapshot> snapshot = client::read_snapshot(answer->get(), &fault);
    return snapshot ? Result(*snapshot)
                    : Result<client::Snapshot>(Problem{ProblemKind::failed, fault});
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

Result<bool> Bus::ask(const client::Call &asked) {
    const Result<client::Variant> answer = call(daemon, asked);
    if (!answer) {
        return answer.problem();
    }
    const std::optional<bool> status = client::read_status(answer->get());
    return status ? Result(*status)
                  : Result<bool>(Problem{ProblemKind::failed, std::string("to ") + asked.method});
}

KeeperView Bus::read_keeper() {
    const Reply reply = send(keeper, client::keeper_get_all(), answer_limit_ms);
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
    const Reply reply = send(keeper, call, move_limit_ms);
    if (!reply.value) {
        GError *error = reply.error.get();
        g_dbus_error_strip_remote_error(error);
        return {.absent = keeper_is_absent(error), .text = error->message};
    }
    const char *text = "";
    if (g_variant_is_of_type(reply.value.get(), G_VARIANT_TYPE("(s)"))) {
        g_variant_get(reply.value.get(), "(&s)", &text);
    }
    return {.done = true, .text = text};
}

std::optional<News> Bus::next(const Deadline &deadline) {
    bool reached = passed(deadline);
    client::Source timer;
    if (deadline && !reached) {
        /* Rounded up: woken a moment early, the loop would spin through the rest. */
        const int64_t left = (*deadline - g_get_monotonic_time() + 999) / 1000;
        timer =
            client::Source(g_timeout_add(static_cast<guint>(MAX(left, 0)), on_deadline, &reached));
    }
    while (queue.empty() && !reached) {
        g_main_context_iteration(nullptr, TRUE);
    }
    if (reached) {
        timer.release();
    }
    if (queue.empty()) {
        return std::nullopt;
    }
    News news = std::move(queue.front());
    queue.pop_front();
    return news;
}

void Bus::on_reply(GObject *source, GAsyncResult *result, gpointer data) noexcept {
    auto *reply = static_cast<Reply *>(data);
    GError *error = nullptr;
    reply->value.reset(g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, &error));
    reply->error.reset(error);
    reply->arrived = true;
}

Bus::Reply Bus::send(const Peer &peer, const client::Call &call, int limit_ms) {
    Reply reply;
    /* Not g_dbus_connection_call_sync(): it would overtake announcements that came before. */
    g_dbus_connection_call(connection.get(), peer.name, peer.path, call.interface, call.method,
                           call.arguments.get(), nullptr, G_DBUS_CALL_FLAGS_NO_AUTO_START, limit_ms,
                           nullptr, on_reply, &reply);
    while (!reply.arrived) {
        g_main_context_iteration(nullptr, TRUE);
    }
    return reply;
}

Result<client::Variant> Bus::call(const Peer &peer, const client::Call &call) {
    Reply reply = send(peer, call, answer_limit_ms);
    if (!reply.value) {
        return classify_call(reply.error.get());
    }
    return std::move(reply.value);
}

Result<uint32_t> Bus::ask_about_name(const char *method) {
    const Result<client::Variant> answer =
        call(driver, {driver.name, method, client::owned(g_variant_new("(s)", DUSKVALE_BUS_NAME))});
    if (!answer) {
        return answer.problem();
    }
    if (!g_variant_is_of_type(answer->get(), G_VARIANT_TYPE("(u)"))) {
        return Problem{ProblemKind::failed, std::string("to ") + method};
    }
    uint32_t number = 0;
    g_variant_get(answer->get(), "(u)", &number);
    return number;
}

void Bus::push(News::Content content) {
    queue.push_back({std::move(content), g_get_real_time()});
}

void Bus::on_signal(GDBusConnection *, const gchar *, const gchar *, const gchar *,
                    const gchar *name, GVariant *arguments, gpointer self) noexcept {
    if (std::optional<client::Announcement> known = client::read_announcement(name, arguments)) {
        static_cast<Bus *>(self)->push(std::move(*known));
    }
}

void Bus::on_owner(GDBusConnection *, const gchar *, const gchar *, const gchar *, const gchar *,
                   GVariant *arguments, gpointer self) noexcept {
    const gchar *new_owner = nullptr;
    g_variant_get(arguments, "(&s&s&s)", nullptr, nullptr, &new_owner);
    auto *bus = static_cast<Bus *>(self);
    if (*new_owner != '\0') {
        bus->push(DaemonAppeared{});
    } else {
        bus->push(DaemonVanished{});
    }
}

void Bus::on_closed(GDBusConnection *, gboolean, GError *, gpointer self) noexcept {
    static_cast<Bus *>(self)->push(BusLost{});
}

gboolean Bus::on_interrupt(gpointer self) noexcept {
    static_cast<Bus *>(self)->push(Interrupted{});
    return G_SOURCE_CONTINUE;
}

gboolean Bus::on_output_closed(gint, GIOCondition, gpointer self) noexcept {
    auto *bus = static_cast<Bus *>(self);
    bus->push(OutputClosed{});
    /* The descriptor stays ready for ever; once is enough. */
    bus->output_source.release();
    return G_SOURCE_REMOVE;
}

Result<client::Snapshot> open_daemon(Bus &bus, bool listen) {
    if (const std::optional<Problem> problem = bus.connect()) {
        return *problem;
    }
    if (listen) {
        bus.listen();
    }
    return bus.read();
}

} // namespace ctl
