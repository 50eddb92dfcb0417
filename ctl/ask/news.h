/* What a command waits for: what the daemon announces, and what becomes of it, of the connection
   and of this program. */
#pragma once

#include "client/announcement.h"

#include <cstdint>
#include <string>
#include <variant>

namespace ctl {

struct DaemonAppeared {};
struct DaemonVanished {};
struct KeeperLogged {
    std::string text; /* a line of this node's keeper */
};
struct BusLost {};      /* the bus closed the connection */
struct OutputClosed {}; /* nobody reads standard output any more */

struct News {
    using Content = std::variant<client::Announcement, DaemonAppeared, DaemonVanished, KeeperLogged,
                                 BusLost, OutputClosed>;
    Content content;
    int64_t time; /* of its arrival, microseconds since 1970 */

    template <typename T>
    bool is() const {
        return std::holds_alternative<T>(content);
    }
    /* Null when it is not an announcement. */
    const client::Announcement *announcement() const {
        return std::get_if<client::Announcement>(&content);
    }
};

} // namespace ctl
