"""What a node sees of the machine's files: the same tree, with the changing parts its own.

All of it is in the node's mount namespace and goes with it.
"""

import os
import pathlib
import shutil
import subprocess

# Directories that start empty on each node. Those that the machine does not have are left out.
EMPTY = ("/run", "/dev/shm", "/var/lib/corosync", "/var/log/corosync", "/sys/bus")

# Directories below which files can be made, changed and removed without touching the machine's.
LAYERED = ("/etc", "/usr/share")
# A package is installed into these, and noted by dpkg below /var.
LAYERED_FOR_PACKAGE = ("/etc", "/usr", "/var")

SETTINGS = "/etc/duskvale"
RUN_DIRECTORY = "/usr/share/duskvale/run.d"
DEVICES = "/sys/bus/lumacrates/devices"
BUS_POLICIES = "/usr/share/dbus-1/system.d"
COROSYNC_CONFIG = "/etc/corosync/corosync.conf"
PACKAGED_DAEMON = "/usr/sbin/duskvale-corosync-bridge"
PACKAGED_CTL = "/usr/bin/duskvalectl"
PACKAGED_EXAMPLES = "/usr/share/doc/duskvale-corosync-bridge/examples"
PACKAGED_UNIT = "/usr/lib/systemd/system/duskvale-corosync-bridge.service"
BUS_SOCKET = "/run/dbus/system_bus_socket"


def prepare_node(layers, corosync_config, bus_policy, package=None):
    """Mounts and fills the node's own directories. Run as pid 1 of the node's namespaces.

    `layers` is the directory for what differs from the machine's files, empty or as the node left
    it; `corosync_config` the text of the file; `bus_policy` the path of the policy file on the
    machine, or None. `package` is a .deb to install there, not below one of the EMPTY directories.
    """
    policy = pathlib.Path(bus_policy).read_bytes() if bus_policy else None
    is_new = not os.path.isdir(layers)
    _mount("-t", "proc", "proc", "/proc")
    for directory in LAYERED_FOR_PACKAGE if package else LAYERED:
        _overlay(directory, layers)
    for directory in EMPTY:
        if os.path.isdir(directory):
            mode = "1777" if directory == "/dev/shm" else "755"
            _mount("-t", "tmpfs", "-o", f"mode={mode}", "tmpfs", directory)
    if is_new:
        # Should the product be installed on the machine: its settings are not the node's.
        for directory in (SETTINGS, os.path.dirname(RUN_DIRECTORY)):
            shutil.rmtree(directory, ignore_errors=True)
        if package:
            _install(package)
    for directory in (SETTINGS, RUN_DIRECTORY, DEVICES, BUS_POLICIES, "/run/dbus", "/run/lock"):
        os.makedirs(directory, exist_ok=True)
    os.makedirs(os.path.dirname(COROSYNC_CONFIG), exist_ok=True)
    pathlib.Path(COROSYNC_CONFIG).write_text(corosync_config, encoding="utf-8")
    if policy is not None:
        pathlib.Path(BUS_POLICIES, os.path.basename(bus_policy)).write_bytes(policy)


def _install(package):
    # What it depends on is the lab's business, see scripts/install-packages. All of it, also where
    # the machine is a container that leaves documents out.
    options = ["--force-depends", "--force-confnew", "--path-include=*"]
    variables = {**os.environ, "DEBIAN_FRONTEND": "noninteractive"}
    subprocess.run(["dpkg", *options, "--install", package], check=True, env=variables)


def _overlay(directory, layers):
    upper = layers + directory
    work = f"{layers}/work{directory}"
    os.makedirs(upper, exist_ok=True)
    os.makedirs(work, exist_ok=True)
    options = f"lowerdir={directory},upperdir={upper},workdir={work}"
    _mount("-t", "overlay", "-o", options, "overlay", directory)


def _mount(*arguments):
    subprocess.run(["mount", *arguments], check=True)
