"""The example steps, put on a node as its operator would."""

from .paths import EXAMPLES

STORAGE = "10-promote-demote.run"
SERVICE = "50-service.run"
VIRTUAL_ADDRESS = "90-virtual-address.run"

ADDRESS = "192.0.2.100"
ADDRESS_6 = "2001:db8::100"

_SETTINGS = {
    STORAGE: "duskvale-storage",
    SERVICE: "duskvale-service",
    VIRTUAL_ADDRESS: "duskvale-virtual-address",
}


def install(node, step, settings):
    """Puts the step on the node; `settings` is their text."""
    node.file(f"/etc/default/{_SETTINGS[step]}").write_text(settings, encoding="utf-8")
    node.write_step(step, node.file(f"{EXAMPLES}/run.d/{step}").read_text(encoding="utf-8"))


def install_address(node):
    """The step of the virtual addresses, set up for ADDRESS and ADDRESS_6."""
    install(node, VIRTUAL_ADDRESS, f'ADDRESS="{ADDRESS}/32 {ADDRESS_6}/128"\nINTERFACE=eth0\n')
