#include "client/announcement.h"

#include "client/handle.h"

#include <cstring>

namespace client {

namespace {

/* Takes the arguments of a signal, whose types have been checked, one after another. */
class Arguments {
public:
    explicit Arguments(GVariant *arguments) : tuple(arguments) {}
    std::string text() { return g_variant_get_string(next().get(), nullptr); }
    uint32_t number() { return g_variant_get_uint32(next().get()); }
    int integer() { return g_variant_get_int32(next().get()); }
    bool flag() { return g_variant_get_boolean(next().get()) != FALSE; }

private:
    Variant next() { return Variant(g_variant_get_child_value(tuple, place++)); }

    GVariant *tuple;
    gsize place = 0;
};

struct Row {
    const char *signal;
    const char *type;
    Announcement (*read)(Arguments);
};

/* An initializer in braces is evaluated from left to right. */
constexpr Row rows[] = {
    {"NotifyNewMaster", "(u)", [](Arguments in) -> Announcement { return NewMaster{in.number()}; }},
    {"NotifyFrozenMaster", "(us)",
     [](Arguments in) -> Announcement {
         return FrozenMaster{in.number(), in.text()};
     }},
    {"NotifyJoined", "(uu)",
     [](Arguments in) -> Announcement {
         return Joined{in.number(), in.number()};
     }},
    {"NotifyLeft", "(uu)",
     [](Arguments in) -> Announcement {
         return Left{in.number(), in.number()};
     }},
    {"NotifyKeepAlive", "(u)", [](Arguments in) -> Announcement { return KeepAlive{in.number()}; }},
    {"NotifyGotMessage", "(s)", [](Arguments in) -> Announcement { return Text{in.text()}; }},
    {"NotifyLumacrateHotplug", "(uubsss)",
     [](Arguments in) -> Announcement {
         return Hotplug{in.number(), in.number(), in.flag(), in.text(), in.text(), in.text()};
     }},
    {"NotifyRunstepBegin", "(ss)",
     [](Arguments in) -> Announcement {
         return StepBegin{in.text(), in.text()};
     }},
    {"NotifyRunstepEnd", "(ssi)",
     [](Arguments in) -> Announcement {
         return StepEnd{in.text(), in.text(), in.integer()};
     }},
    {"NotifyRunstepsDone", "(u)",
     [](Arguments in) -> Announcement { return StepsDone{in.number()}; }},
};

} // namespace

std::optional<Announcement> read_announcement(const char *signal, GVariant *arguments) {
    for (const Row &row : rows) {
        if (std::strcmp(row.signal, signal) == 0) {
            return g_variant_is_of_type(arguments, G_VARIANT_TYPE(row.type))
                       ? std::optional(row.read(Arguments(arguments)))
                       : std::nullopt;
        }
    }
    return std::nullopt;
}

} // namespace client
