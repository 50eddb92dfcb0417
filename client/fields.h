/* The values of a dictionary (a{sv}), as the properties of an object on the bus are sent. */
#pragma once

#include "client/handle.h"
#include "client/node-id.h"

#include <cstdint>
#include <optional>
#include <string>

namespace client {

/* A key that is missing, or whose value is of another type, leaves the variable as it is. */
class Fields {
public:
    explicit Fields(Variant of) : dictionary(std::move(of)) {}

    void get(const char *key, std::string &value) { look_up<const char *>(key, "&s", value); }
    void get(const char *key, std::optional<std::string> &value) {
        look_up<const char *>(key, "&s", value);
    }
    void get(const char *key, bool &value) { look_up<gboolean>(key, "b", value); }
    void get(const char *key, int &value) { look_up<gint32>(key, "i", value); }
    void get(const char *key, NodeId &value) { look_up<guint32>(key, "u", value); }
    void get(const char *key, uint64_t &value) { look_up<guint64>(key, "t", value); }
    void get(const char *key, std::optional<int64_t> &value) { look_up<guint64>(key, "t", value); }
    void get_signed(const char *key, NodeId &value) { look_up<gint32>(key, "i", value); }
    /* Null when there is no such value. */
    Variant get(const char *key, const char *type) const {
        return Variant(g_variant_lookup_value(dictionary.get(), key, G_VARIANT_TYPE(type)));
    }

    /* The first key that was asked for and left a variable as it was; "" for none. */
    const std::string &missing() const { return first_missing; }

private:
    template <typename Sent, typename Value>
    void look_up(const char *key, const char *type, Value &value) {
        Sent sent{};
        if (g_variant_lookup(dictionary.get(), key, type, &sent)) {
            value = static_cast<Value>(sent);
        } else if (first_missing.empty()) {
            first_missing = key;
        }
    }

    Variant dictionary;
    std::string first_missing;
};

} // namespace client
