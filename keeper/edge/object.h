/*
 * The keeper's own object on the bus (com.norvel.DuskvaleKeeper.xml): properties that announce
 * their changes, and methods, which the bus lets only root call.
 */
#pragma once

#include "keeper/edge/call.h"

#include <map>

namespace keeper {

class Object {
public:
    /* `deliver` gets an input for each call of a method. */
    Object(GDBusConnection *bus, Deliver deliver);

    /* All properties by name, as they are now. */
    using Properties = std::map<std::string, client::Variant>;
    void publish(Properties news);
    /* A line of the log, to whoever listens. */
    void announce(const std::string &line);
    /* Each call once. */
    static void answer(void *call, bool ok, const std::string &text);

private:
    static void on_method(GDBusConnection *, const gchar *, const gchar *, const gchar *,
                          const gchar *method, GVariant *arguments,
                          GDBusMethodInvocation *invocation, gpointer self) noexcept;
    static GVariant *on_read(GDBusConnection *, const gchar *, const gchar *, const gchar *,
                             const gchar *property, GError **, gpointer self) noexcept;

    GDBusConnection *bus;
    Deliver deliver;
    Properties properties;
};

} // namespace keeper
