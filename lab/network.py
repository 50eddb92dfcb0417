"""The addresses of the machines on a lab's network."""

SUBNET = "192.0.2."  # set aside for documentation: nothing real has such an address
SECOND_SUBNET = "198.51.100."  # on the same cable, for a second link of corosync
PREFIX = 24


def address_of(number):
    """The address of node `number`; beyond the nodes there is room for clients and services."""
    return f"{SUBNET}{number}"


def interface_addresses_of(number):
    """All that its network card has, with the length of the prefix."""
    return " ".join(f"{subnet}{number}/{PREFIX}" for subnet in (SUBNET, SECOND_SUBNET))


def link_address_of(number):
    """The same at every start, as a real card's: the neighbours remember it."""
    return f"02:00:c0:00:02:{number:02x}"
