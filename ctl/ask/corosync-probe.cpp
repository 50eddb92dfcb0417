#include "ctl/ask/corosync-probe.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>

/*
 * A connection to the socket on which corosync serves process groups, given up at once. libcpg's
 * own connection would show the same, but waits without limit for a corosync that is stalled, and
 * creates shared memory; an operator's question must do neither.
 */

namespace ctl {

namespace {

/* The name of the service; libqb makes an abstract socket of it, or with the setting
   force-filesystem-sockets a file in its socket directory. */
constexpr char service[] = "cpg";
constexpr char socket_file[] = "/run/cpg";

bool connects(const sockaddr_un &address, std::size_t path_length) {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) {
        return false;
    }
    /* libqb gives abstract sockets the full length of the address, padded with zeros. */
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path_length);
    const bool connected =
        connect(fd, reinterpret_cast<const sockaddr *>(&address), length) == 0 || errno == EAGAIN;
    close(fd);
    return connected;
}

} // namespace

bool corosync_is_there() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path + 1, service, sizeof service);
    if (connects(address, sizeof address.sun_path)) {
        return true;
    }
    std::memset(address.sun_path, 0, sizeof address.sun_path);
    std::memcpy(address.sun_path, socket_file, sizeof socket_file);
    return connects(address, sizeof socket_file);
}

} // namespace ctl
