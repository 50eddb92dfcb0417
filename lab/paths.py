"""Names that the lab and its users share: of units, and of what the product has on a node."""

DAEMON = "duskvale-corosync-bridge.service"
COROSYNC = "corosync.service"
KEEPER = "duskvale-keeper.service"
SIGNALS = "lab-signals.service"

COROSYNC_CONFIG = "/etc/corosync/corosync.conf"
COROSYNC_KEY = "/etc/corosync/authkey"
SETTINGS = "/etc/duskvale"
RUN_DIRECTORY = "/usr/share/duskvale/run.d"
WATCH_DIRECTORY = "/etc/duskvale/watch.d"
BUS_POLICIES = "/usr/share/dbus-1/system.d"
DEVICES = "/sys/bus/lumacrates/devices"
UNIT_FILE = f"/usr/lib/systemd/system/{DAEMON}"
DROP_IN = f"/etc/systemd/system/{DAEMON}.d/lab.conf"
EXAMPLES = "/usr/share/doc/duskvale-corosync-bridge/examples"
PACKAGE = "/var/tmp/package.deb"  # on a node that has it installed
BUS_SOCKET = "/run/dbus/system_bus_socket"
