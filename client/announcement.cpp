#include "client/announcement.h"

#include "client/handle.h"

#include <cstring>

namespace client {

namespace {

std::string text(GVariant *value) {
    return g_variant_get_string(value, nullptr);
}

bool flag(GVariant *value) {
    return g_variant_get_boolean(value) != FALSE;
}

constexpr auto number = g_variant_get_uint32;
constexpr auto integer = g_variant_get_int32;

/* Makes a signal of its arguments, whose types have been checked: an initializer in braces is
   evaluated from left to right. */
template <typename Signal, auto... convert>
Announcement read(GVariant *arguments) {
    gsize place = 0;
    return Signal{convert(Variant(g_variant_get_child_value(arguments, place++)).get())...};
}

struct Row {
    const char *signal;
    const char *type;
    Announcement (*read)(GVariant *arguments);
};

constexpr Row rows[] = {
    {"NotifyNewMaster", "(u)", read<NewMaster, number>},
    {"NotifyFrozenMaster", "(us)", read<FrozenMaster, number, text>},
    {"NotifyJoined", "(uu)", read<Joined, number, number>},
    {"NotifyLeft", "(uu)", read<Left, number, number>},
    {"NotifyKeepAlive", "(u)", read<KeepAlive, number>},
    {"NotifyGotMessage", "(s)", read<Text, text>},
    {"NotifyLumacrateHotplug", "(uubsss)", read<Hotplug, number, number, flag, text, text, text>},
    {"NotifyRunstepBegin", "(ss)", read<StepBegin, text, text>},
    {"NotifyRunstepEnd", "(ssi)", read<StepEnd, text, text, integer>},
    {"NotifyRunstepsDone", "(u)", read<StepsDone, number>},
};

} // namespace

std::optional<Announcement> read_announcement(const char *signal, GVariant *arguments) {
    for (const Row &row : rows) {
        if (std::strcmp(row.signal, signal) == 0) {
            return g_variant_is_of_type(arguments, G_VARIANT_TYPE(row.type))
                       ? std::optional(row.read(arguments))
                       : std::nullopt;
        }
    }
    return std::nullopt;
}

} // namespace client
