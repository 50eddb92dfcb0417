/*
 * A system bus of the test's own, under the machine's standard configuration and the policy that is
 * shipped, and a client on it. Only inside the sandbox, where the policy can be installed.
 */
#pragma once

#include "base/paths.h"
#include "support/child.h"
#include "support/loop.h"

#include <gio/gio.h>
#include <grp.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

/* The bus that libdbus connects this process and its children to from now on. */
class Bus {
public:
    Bus() {
        const std::filesystem::path source = std::getenv("SOURCE_ROOT");
        const std::filesystem::path policies = "/usr/share/dbus-1/system.d";
        create_directories(policies);
        for (const char *name :
             {"com.norvel.DuskvaleCorosync.conf", "com.norvel.DuskvaleKeeper.conf"}) {
            copy(source / "data" / name, policies,
                 std::filesystem::copy_options::overwrite_existing);
        }
        daemon.emplace([] {
            become("dbus-daemon", {"dbus-daemon", "--system", "--nofork", "--nopidfile",
                                   "--address=unix:dir=/mnt", "--print-address"});
        });
        if (!loop_until([this] { return daemon->stdout_text().ends_with('\n'); })) {
            throw std::runtime_error("no bus: " + daemon->stderr_text());
        }
        address = daemon->stdout_text();
        address.pop_back();
        setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1);
    }
    void stop() { daemon.reset(); }

    std::string address;

private:
    std::optional<Child> daemon;
};

/* Debian's numbers. */
constexpr uid_t nobody = 65534;
constexpr gid_t nogroup = 65534;
constexpr gid_t adm = 4;

/* A client of its own connection; values are given and returned in GVariant's text format. */
class Client {
public:
    /* Listens to all signals of the object. The bus takes the client for the user `uid` in `group`.
     */
    explicit Client(const Bus &bus, uid_t uid = 0, const char *name_ = DUSKVALE_BUS_NAME,
                    const char *path_ = DUSKVALE_BUS_PATH, gid_t group = nogroup)
        : name(name_), path(path_) {
        /* The bus asks the kernel who connected, and that at this moment. */
        const bool changed = setgroups(1, &group) == 0 && setresuid(uid, uid, 0) == 0;
        connection = g_dbus_connection_new_for_address_sync(
            bus.address.c_str(),
            static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                              G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
            nullptr, nullptr, nullptr);
        if (!changed || setresuid(0, 0, 0) != 0 || connection == nullptr) {
            throw std::runtime_error("no client");
        }
        subscription =
            g_dbus_connection_signal_subscribe(connection, nullptr, nullptr, nullptr, path, nullptr,
                                               G_DBUS_SIGNAL_FLAGS_NONE, on_signal, this, nullptr);
        /* Answered only after the subscription has been taken. */
        driver("GetId", "()");
    }
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;
    ~Client() {
        /* Signals may still be under way to this client, by way of the main context. */
        g_dbus_connection_signal_unsubscribe(connection, subscription);
        g_dbus_connection_close_sync(connection, nullptr, nullptr);
        g_object_unref(connection);
    }

    /* The reply, or the name of the error. `interface` may be null: then the call names none. */
    std::string call(const char *interface, const char *member, const std::string &arguments,
                     const std::string &destination = "", const char *object = nullptr) {
        g_autoptr(GDBusMessage) message =
            g_dbus_message_new_method_call(destination.empty() ? name : destination.c_str(),
                                           object != nullptr ? object : path, interface, member);
        g_dbus_message_set_body(
            message, g_variant_parse(nullptr, arguments.c_str(), nullptr, nullptr, nullptr));
        GAsyncResult *result = nullptr;
        g_dbus_connection_send_message_with_reply(
            connection, message, G_DBUS_SEND_MESSAGE_FLAGS_NONE, G_MAXINT, nullptr, nullptr,
            [](GObject *, GAsyncResult *r, gpointer p) {
                *static_cast<GAsyncResult **>(p) = G_ASYNC_RESULT(g_object_ref(r));
            },
            &result);
        if (!loop_until([&] { return result != nullptr; })) {
            return "no answer";
        }
        g_autoptr(GDBusMessage) reply =
            g_dbus_connection_send_message_with_reply_finish(connection, result, nullptr);
        g_object_unref(result);
        if (reply == nullptr || g_dbus_message_get_error_name(reply) != nullptr) {
            return reply == nullptr ? "no reply" : g_dbus_message_get_error_name(reply);
        }
        GVariant *body = g_dbus_message_get_body(reply);
        return body == nullptr ? "()" : text(body);
    }
    std::string method(const char *member, const std::string &arguments = "()") {
        return call(name, member, arguments);
    }
    /* One of Get, GetAll and Set; `more` goes on behind the interface's name. */
    std::string properties(const char *member, const std::string &more = "") {
        return call("org.freedesktop.DBus.Properties", member,
                    "('" + std::string(name) + "'," + more + ")");
    }
    std::string get(const std::string &property) { return properties("Get", "'" + property + "'"); }
    std::string set(const std::string &property, const std::string &value) {
        return properties("Set", "'" + property + "', <" + value + ">");
    }
    std::string driver(const char *member, const std::string &arguments) {
        return call("org.freedesktop.DBus", member, arguments, "org.freedesktop.DBus",
                    "/org/freedesktop/DBus");
    }

    /* The next signal, waited for: its name and its arguments. */
    std::string signal() {
        if (!loop_until([&] { return !signals.empty(); })) {
            return "no signal";
        }
        std::string first = signals.front();
        signals.erase(signals.begin());
        return first;
    }

    std::vector<std::string> signals;
    GDBusConnection *raw() { return connection; }

private:
    static std::string text(GVariant *value) {
        g_autofree gchar *printed = g_variant_print(value, TRUE);
        return printed;
    }
    static void on_signal(GDBusConnection *, const gchar *, const gchar *, const gchar *,
                          const gchar *signal, GVariant *arguments, gpointer self) {
        static_cast<Client *>(self)->signals.push_back(signal + text(arguments));
    }

    const char *name;
    const char *path;
    GDBusConnection *connection = nullptr;
    guint subscription = 0;
};
