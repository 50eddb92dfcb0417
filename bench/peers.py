"""What a user may pick to have an address on one node of three, each set up as its manual says.

All of them give ADDRESS to one node and watch the same service, which runs on all nodes: the keeper
as often as it does by default, the others every second. corosync runs beside each of them, also
beside keepalived, which does not use it.
"""

import sys

from lab.cluster import CHECKOUT
from lab.examples import ADDRESS, install_address
from lab.paths import COROSYNC, DAEMON, KEEPER
from lab.waiting import LabError

LIMIT = 60.0
SERVICE = "bench-echo.service"
_SERVICE_UNIT = f"""
[Service]
Environment=PYTHONPATH={CHECKOUT}
ExecStart={sys.executable} -B {CHECKOUT}/bench/probe.py serve
[Install]
WantedBy=multi-user.target
"""
_WATCH = f"#!/bin/sh\nsystemctl --quiet is-active {SERVICE}\n"
_STEP = f'#!/bin/sh\n[ "$1" = stop ] || systemctl start {SERVICE}\n'


def _write(node, path, text):
    file = node.file(path)
    file.parent.mkdir(parents=True, exist_ok=True)
    file.write_text(text, encoding="utf-8")


class Peer:
    """`unit` is the one whose main process is killed, `units` all that its users run."""

    keepers = True  # of the image that the lab needs: its corosync counts votes
    watches = True  # whether anything looks at the service

    def set_up(self, lab):
        """On nodes that were reset: so that `lab` has the address on one node, and after boots."""
        for node in lab.nodes:
            _write(node, f"/etc/systemd/system/{SERVICE}", _SERVICE_UNIT)
            self.configure(node)
            theirs = [unit for unit in (DAEMON, KEEPER) if unit not in self.units]
            node.systemctl("daemon-reload")
            node.systemctl("disable", "--now", *theirs, check=False, limit=LIMIT)
            node.systemctl("enable", SERVICE, *self.units)

    def configure(self, node):
        """Writes its files."""

    def revive(self, lab):
        """Starts what the last repetition has ended; harmless for what runs."""
        for node in lab.nodes:
            node.systemctl("reset-failed")
        starts = [node.popen(["systemctl", "start", COROSYNC, SERVICE, *self.units])
                  for node in lab.nodes]
        if any(start.wait(LIMIT) for start in starts):
            raise LabError(f"{self.name} does not start\n{lab.diagnosis()}")
        lab.wait_ring()
        self.settle(lab)

    def settle(self, lab):
        """Waits until all nodes take part again."""

    def stop(self, node):
        node.systemctl("stop", self.unit, limit=LIMIT)


class Daemon(Peer):
    """This software without the keeper."""

    name = "this software"
    unit, units = DAEMON, (DAEMON,)
    keepers = False
    watches = False

    def configure(self, node):
        install_address(node)

    def settle(self, lab):
        lab.wait_master(limit=LIMIT)

    def move(self, lab, _old, new):
        new.duskvalectl("take-over", "--wait", limit=LIMIT)


class Keeper(Daemon):
    name = "this software with the keeper"
    units = (DAEMON, KEEPER)
    keepers = True
    watches = True

    def configure(self, node):
        super().configure(node)
        node.write_step("50-echo.run", _STEP)
        node.write_watch("50-echo.watch", _WATCH)

    def settle(self, lab):
        super().settle(lab)
        for node in lab.nodes:  # A service that fails again soon makes its node unfit.
            node.systemctl("restart", KEEPER)
            node.duskvalectl("fit")
        lab.wait_master(limit=LIMIT)


class Keepalived(Peer):
    """`interval` is that of the advertisements, in seconds. The nodes' priorities are just below
    `priority`: the higher, the sooner a backup follows a master that leaves."""

    unit, units = "keepalived.service", ("keepalived.service",)
    _LEAVE = "/var/tmp/leave"

    def __init__(self, name, interval, priority):
        self.name = name
        self._priority = priority
        self._interval = interval

    def configure(self, node):
        _write(node, "/etc/keepalived/service", _WATCH)
        node.file("/etc/keepalived/service").chmod(0o755)
        _write(node, self._LEAVE, "0\n")
        # nopreempt: a node that comes back does not take the address, which would be an outage.
        _write(node, "/etc/keepalived/keepalived.conf", f"""
global_defs {{
  enable_script_security
  script_user root
  vrrp_version 3
}}
vrrp_script service {{
  script /etc/keepalived/service
  interval 1
}}
vrrp_track_file leave {{
  file {self._LEAVE}
}}
vrrp_instance bench {{
  state BACKUP
  nopreempt
  interface eth0
  virtual_router_id 51
  priority {self._priority - node.number}
  advert_int {self._interval}
  virtual_ipaddress {{
    {ADDRESS}/32
  }}
  track_script {{
    service
  }}
  track_file {{
    leave
  }}
}}
""")

    def move(self, lab, old, _new):
        _write(old, self._LEAVE, "-254\n")

    def settle(self, lab):
        for node in lab.nodes:
            _write(node, self._LEAVE, "0\n")


class Pacemaker(Peer):
    name = "pacemaker"
    unit, units = "pacemaker.service", ("pacemaker.service",)
    # Without fencing, as there is none in a lab; the side without quorum stops its resources.
    _CIB = f"""
<configuration>
  <crm_config>
    <cluster_property_set id="options">
      <nvpair id="fencing" name="stonith-enabled" value="false"/>
    </cluster_property_set>
  </crm_config>
  <resources>
    <clone id="echo-clone">
      <primitive id="echo" class="systemd" type="{SERVICE.removesuffix(".service")}">
        <operations><op id="echo-monitor" name="monitor" interval="1s"/></operations>
      </primitive>
    </clone>
    <primitive id="address" class="ocf" provider="heartbeat" type="IPaddr2">
      <meta_attributes id="address-meta">
        <nvpair id="address-stays" name="resource-stickiness" value="100"/>
      </meta_attributes>
      <instance_attributes id="address-attributes">
        <nvpair id="address-ip" name="ip" value="{ADDRESS}"/>
        <nvpair id="address-mask" name="cidr_netmask" value="32"/>
        <nvpair id="address-card" name="nic" value="eth0"/>
      </instance_attributes>
      <operations><op id="address-monitor" name="monitor" interval="10s"/></operations>
    </primitive>
  </resources>
  <constraints>
    <rsc_colocation id="together" rsc="address" with-rsc="echo-clone" score="INFINITY"/>
  </constraints>
</configuration>
"""

    def set_up(self, lab):
        super().set_up(lab)
        for node in lab.nodes:  # It starts the service itself.
            node.systemctl("disable", SERVICE)
        self.revive(lab)
        lab.node(1).run(["cibadmin", "--modify", "--allow-create", "--scope=configuration",
                         f"--xml-text={self._CIB}"])

    def settle(self, lab):
        def online():
            report = lab.node(1).run(["crm_mon", "--one-shot", "--output-as=xml"], check=False)
            return report.stdout.count('online="true"') == len(lab.nodes)

        lab.wait(online, LIMIT, "pacemaker runs on all nodes", pause=0.1)
        lab.node(1).run(["crm_resource", "--clear", "--resource=address"], check=False)
        lab.node(1).run(["crm_resource", "--cleanup"], limit=LIMIT)
        lab.node(1).run(["crm_resource", "--wait"], limit=LIMIT)

    def move(self, _lab, _old, new):
        new.run(["crm_resource", "--move", "--resource=address", f"--node={new.name}"])


PEERS = {
    "daemon": Daemon(),
    "keeper": Keeper(),
    "keepalived": Keepalived("keepalived, defaults", 1, priority=103),
    "keepalived-tuned": Keepalived("keepalived, tuned to 0.1 s", 0.1, priority=255),
    "pacemaker": Pacemaker(),
}
