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
    /* `told` gets an Asked for each call of a method. */
    Object(GDBusConnection *bus, Told told);

    void publish(const Published &published);
    void answer(const Answer &answer);

private:
    static void on_method(GDBusConnection *, const gchar *, const gchar *, const gchar *,
                          const gchar *method, GVariant *arguments,
                          GDBusMethodInvocation *invocation, gpointer self) noexcept;
    static GVariant *on_read(GDBusConnection *, const gchar *, const gchar *, const gchar *,
                             const gchar *property, GError **, gpointer self) noexcept;

    GDBusConnection *bus;
    Told told;
    std::optional<Published> last;
    client::Variant properties;                        /* a{sv} */
    std::map<uint64_t, GDBusMethodInvocation *> asked; /* not answered; an answer releases it */
    uint64_t next_id = 1;
};

} // namespace keeper
