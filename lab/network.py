"""The network of a lab: one switch, and a cable to each node. Runs in the switch's namespace."""

import subprocess

SUBNET = "192.0.2."  # set aside for documentation: nothing real has such an address
PREFIX = 24
MAIN = "switch"


def address_of(number):
    """The address of node `number`; beyond the nodes there is room for clients and services."""
    return f"{SUBNET}{number}"


def link_address_of(number):
    """The same at every start, as a real card's: the neighbours remember it."""
    return f"02:00:c0:00:02:{number:02x}"


class Switch:
    def __init__(self):
        self.cut_cables = set()
        self.sides = {}
        self._bridges = set()
        self._use_bridge(MAIN)

    def plug_in(self, name, address):
        """Makes the network namespace `name`, whose eth0 has `address`, and connects it."""
        _ip("netns", "add", name)
        _ip("link", "add", f"port-{name}", "type", "veth", "peer", "name", "eth0", "netns", name)
        _ip("-n", name, "link", "set", "lo", "up")
        link_address = link_address_of(int(address.removeprefix(SUBNET)))
        _ip("-n", name, "link", "set", "eth0", "address", link_address)
        _ip("-n", name, "address", "add", f"{address}/{PREFIX}", "dev", "eth0")
        _ip("-n", name, "link", "set", "eth0", "up")
        self.assign(name, MAIN)
        self.set_cable(name, True)

    def unplug(self, name):
        """Takes away the cable and the namespace's name; what still runs in there is cut off."""
        _ip("link", "delete", f"port-{name}")
        _ip("netns", "delete", name)
        del self.sides[name]
        self.cut_cables.discard(name)

    def restore_addresses(self, name, address):
        """Leaves `address` as the only IPv4 address of the namespace's eth0."""
        for line in _ip("-n", name, "-4", "-o", "address", "show", "dev", "eth0").splitlines():
            found = line.split()[3]
            if found != f"{address}/{PREFIX}":
                _ip("-n", name, "address", "delete", found, "dev", "eth0")

    def set_cable(self, name, whole):
        """Cuts the cable of `name` or mends it."""
        _ip("link", "set", f"port-{name}", "up" if whole else "down")
        (self.cut_cables.discard if whole else self.cut_cables.add)(name)

    def assign(self, name, side):
        """Moves the cable of `name` to the part of the network called `side`; parts do not meet."""
        self._use_bridge(side)
        _ip("link", "set", f"port-{name}", "master", side)
        self.sides[name] = side

    def _use_bridge(self, name):
        if name not in self._bridges:
            _ip("link", "add", name, "type", "bridge", "stp_state", "0", "mcast_snooping", "0")
            _ip("link", "set", name, "up")
            self._bridges.add(name)


def _ip(*arguments):
    result = subprocess.run(
        ["ip", *arguments], stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False
    )
    if result.returncode != 0:
        raise RuntimeError(f"ip {' '.join(arguments)}: {result.stderr.strip()}")
    return result.stdout
