#include "ctl/ask/corosync-probe.h"

#include "client/handle.h"

#include <gio/gio.h>
#include <gio/gunixsocketaddress.h>

/*
 * A connection to the socket on which corosync serves process groups, given up at once. libcpg's
 * own connection would show the same, but waits without limit for a corosync that is stalled, and
 * creates shared memory; an operator's question must do neither.
 */

namespace ctl {

namespace {

bool connects(const char *path, GUnixSocketAddressType type) {
    const client::Object<GSocketAddress> address(
        g_unix_socket_address_new_with_type(path, -1, type));
    const client::Object<GSocket> socket(g_socket_new(G_SOCKET_FAMILY_UNIX, G_SOCKET_TYPE_STREAM,
                                                      G_SOCKET_PROTOCOL_DEFAULT, nullptr));
    if (!socket) {
        return false;
    }
    /* A corosync that is stalled takes no connection, and its queue of them may be full. */
    g_socket_set_blocking(socket.get(), FALSE);
    g_autoptr(GError) error = nullptr;
    return g_socket_connect(socket.get(), address.get(), nullptr, &error) != FALSE ||
           g_error_matches(error, G_IO_ERROR, G_IO_ERROR_WOULD_BLOCK);
}

} // namespace

bool corosync_is_there() {
    /* libqb makes an abstract socket of the service's name, padded with zeros; or, with the setting
       force-filesystem-sockets, a file in its socket directory. */
    return connects("cpg", G_UNIX_SOCKET_ADDRESS_ABSTRACT_PADDED) ||
           connects("/run/cpg", G_UNIX_SOCKET_ADDRESS_PATH);
}

} // namespace ctl
