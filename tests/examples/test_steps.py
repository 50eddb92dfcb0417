"""The example steps, run as the daemon runs them, on two nodes and a client made of network
namespaces. Runs in the unit tests' sandbox, in a network namespace of its own."""

import contextlib
import ctypes
import pathlib
import select
import shutil
import socket
import subprocess
import sys
import time
import unittest

STEPS = pathlib.Path(sys.argv.pop(1))
STORAGE = STEPS / "10-promote-demote.run"
SERVICE = STEPS / "50-service.run"
ADDRESS = STEPS / "90-virtual-address.run"
DEFAULTS = pathlib.Path("/etc/default")
NODES = {"node1": "10.9.0.1", "node2": "10.9.0.2", "client": "10.9.0.9"}
VIRTUAL = "10.9.0.99"
LIMIT = 20  # seconds, far beyond any real wait
CLONE_NEWNET = 0x40000000

libc = ctypes.CDLL(None, use_errno=True)


def sh(command):
    return subprocess.run(command, shell=True, check=True, capture_output=True, text=True).stdout


def enter(namespace):
    if libc.setns(namespace.fileno(), CLONE_NEWNET) != 0:
        raise OSError(ctypes.get_errno(), f"setns {namespace.name}")


@contextlib.contextmanager
def inside(node):
    """What is made within lives in the node's network."""
    with open("/proc/thread-self/ns/net") as home, open(f"/run/netns/{node}") as away:
        enter(away)
        try:
            yield
        finally:
            enter(home)


def begin(step, *args, node="node1"):
    with inside(node):
        return subprocess.Popen(
            [step, *args], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
            stderr=subprocess.PIPE, text=True)


def run(step, *args, node="node1"):
    """The exit status and all output: of background processes too, so their end is awaited."""
    process = begin(step, *args, node=node)
    out, err = process.communicate(timeout=LIMIT)
    return process.returncode, out + err


def addresses(node):
    return sh(f"ip -n {node} -o -4 address show dev net0 | awk '{{print $4}}'").split()


def link_address(node):
    return sh(f"ip netns exec {node} cat /sys/class/net/net0/address").strip()


def settings(name, text):
    (DEFAULTS / name).write_text(text)


def setUpModule():
    sh("mount -t tmpfs sandbox /run")
    sh("ip link add br0 type bridge && ip link set br0 up")
    for node, address in NODES.items():
        sh(f"""ip netns add {node} &&
            ip link add name to-{node} type veth peer name net0 netns {node} &&
            ip link set to-{node} master br0 up &&
            ip -n {node} link set lo up && ip -n {node} link set net0 up &&
            ip -n {node} address add {address}/24 dev net0""")


class Refusals(unittest.TestCase):
    def test_steps_that_are_not_set_up_say_what_is_missing(self):
        cases = [
            (STORAGE, "duskvale-storage", "", "define promote"),
            (STORAGE, "duskvale-storage", "promote() { :; }", "define demote"),
            (SERVICE, "duskvale-service", "", "set UNITS"),
            (ADDRESS, "duskvale-virtual-address", "INTERFACE=net0", "set ADDRESS"),
            (ADDRESS, "duskvale-virtual-address", f"ADDRESS={VIRTUAL}/32", "set INTERFACE"),
            (ADDRESS, "duskvale-virtual-address", "ADDRESS=fd00::1/64 INTERFACE=net0", "IPv4"),
        ]
        for step, name, text, reason in cases:
            settings(name, text + "\n")
            for action in "start", "stop":
                with self.subTest(step=step.name, text=text, action=action):
                    status, output = run(step, action)
                    self.assertEqual(status, 6)
                    self.assertIn(reason, output)
            (DEFAULTS / name).unlink()

    def test_wrong_usage(self):
        settings("duskvale-storage", "promote() { :; }\ndemote() { :; }\n")
        settings("duskvale-service", "UNITS=a.service\n")
        settings("duskvale-virtual-address", f"ADDRESS={VIRTUAL} INTERFACE=net0\n")
        for step in STORAGE, SERVICE, ADDRESS:
            for args in (), ("restart",):
                with self.subTest(step=step.name, args=args):
                    status, output = run(step, *args)
                    self.assertEqual((status, output), (2, f"{step}: usage: {step} start|stop\n"))


class Storage(unittest.TestCase):
    """The data is a directory that only one node can make."""

    def setUp(self):
        shutil.rmtree("/run/data", ignore_errors=True)
        self.configure(60)

    def configure(self, patience):
        settings("duskvale-storage", f"""
            promote() {{ [ -e /run/data/$$ ] || mkdir /run/data; }}
            demote() {{ [ ! -e /run/data ] || rmdir /run/data; }}
            PATIENCE={patience}""")

    def test_waits_for_the_old_master(self):
        self.assertEqual(run(STORAGE, "start"), (0, ""))
        new = begin(STORAGE, "start", node="node2")
        with self.assertRaises(subprocess.TimeoutExpired):
            new.wait(0.5)
        self.assertEqual(run(STORAGE, "stop"), (0, ""))
        self.assertEqual(new.communicate(timeout=LIMIT), ("", ""))
        self.assertEqual(new.returncode, 0)

    def test_gives_up_with_the_reason(self):
        self.configure(1)
        self.assertEqual(run(STORAGE, "start"), (0, ""))
        status, output = run(STORAGE, "start", node="node2")
        self.assertEqual(status, 1)
        self.assertIn("not promoted within 1 s: mkdir: cannot create directory", output)

    def test_demotes_at_most_once_and_reports_a_refusal(self):
        self.assertEqual(run(STORAGE, "stop"), (0, ""))
        pathlib.Path("/run/data/busy").mkdir(parents=True)
        status, output = run(STORAGE, "stop")
        self.assertEqual(status, 1)
        self.assertIn("rmdir: failed to remove", output)


class Service(unittest.TestCase):
    """With systemctl replaced: no service manager runs in the sandbox."""

    def test_passes_units_and_status_on(self):
        fake = pathlib.Path("/run/systemctl")
        fake.write_text('#!/bin/sh\necho "$@"\nexit 5\n')
        fake.chmod(0o755)
        real = pathlib.Path(shutil.which("systemctl") or "/usr/bin/systemctl")
        sh(f"[ -e {real} ] || touch {real}; mount --bind {fake} {real}")
        self.addCleanup(sh, f"umount {real}")
        settings("duskvale-service", 'UNITS="a.service b.service"\n')
        for action in "start", "stop":
            self.assertEqual(run(SERVICE, action), (5, f"{action} -- a.service b.service\n"))


class VirtualAddress(unittest.TestCase):
    def setUp(self):
        self.configure("net0")
        with inside("client"):
            self.arp = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(0x0806))
            self.arp.bind(("net0", 0))
        self.addCleanup(self.arp.close)
        for node in "node1", "node2":
            sh(f"ip -n {node} address flush dev net0 to {VIRTUAL}/32")

    def configure(self, interface):
        settings("duskvale-virtual-address", f"ADDRESS={VIRTUAL}/32\nINTERFACE={interface}\n")

    def step(self, action, node="node1"):
        """The ended process; its announcements may go on."""
        process = begin(ADDRESS, action, node=node)
        self.addCleanup(process.communicate)
        self.assertEqual(process.wait(LIMIT), 0)
        return process

    def announced_by(self, timeout):
        """The link address that next claims the virtual address, or None."""
        claim = socket.inet_aton(VIRTUAL)
        while select.select([self.arp], [], [], timeout)[0]:
            packet = self.arp.recv(2000)
            if packet[28:32] == claim and packet[38:42] == claim:
                return packet[22:28]
        return None

    def test_each_start_announces_and_each_stop_leaves_the_others(self):
        own = bytes.fromhex(link_address("node1").replace(":", ""))
        for _ in range(2):
            self.step("start")
            self.assertEqual(addresses("node1"), [f"{NODES['node1']}/24", f"{VIRTUAL}/32"])
            self.assertEqual(self.announced_by(LIMIT), own)
        for _ in range(2):
            self.step("stop")
            self.assertEqual(addresses("node1"), [f"{NODES['node1']}/24"])

    def test_announcements_do_not_outlive_a_stop(self):
        process = self.step("start")
        self.assertFalse(select.select([process.stdout], [], [], 0)[0], "the step waited for them")
        self.assertIsNotNone(self.announced_by(LIMIT))
        self.step("stop")
        while self.announced_by(0):
            pass
        self.assertEqual(process.communicate(timeout=LIMIT), ("", ""), "at its end")
        self.assertIsNone(self.announced_by(0))

    def test_without_the_interface_it_fails(self):
        self.configure("none0")
        for action in "start", "stop":
            status, output = run(ADDRESS, action)
            self.assertEqual(status, 1)
            self.assertIn("none0", output)

    def test_clients_follow_a_move(self):
        for name, holders in ("planned", ["node1"]), ("after a split", ["node1", "node2"]):
            with self.subTest(name):
                for node in holders:
                    sh(f"ip -n {node} address add {VIRTUAL}/32 dev net0")
                sh(f"""ip -n client neighbour replace {VIRTUAL} dev net0 nud reachable \
                    lladdr {link_address("node1")}""")
                silence = self.move()
                print(f"longest silence of a move, {name}: {silence * 1000:.1f} ms", flush=True)
                self.assertLess(silence, 1)
                self.step("stop", node="node2")

    def move(self):
        """From node1 to node2, both at once, under a client's requests each millisecond."""
        servers = {}
        for node in "node1", "node2":
            with inside(node):
                server = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
                server.bind(("", 7))
            servers[server] = node.encode()
        with inside("client"):
            client = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        silence, last, seen, steps = 0, time.monotonic(), 0, []
        end = last + LIMIT
        with contextlib.ExitStack() as stack:
            for opened in (client, *servers):
                stack.enter_context(opened)
            while seen < 200:
                self.assertLess(time.monotonic(), end, "the client does not reach node2")
                client.sendto(b"?", (VIRTUAL, 7))
                for ready in select.select([client, *servers], [], [], 0.001)[0]:
                    data, peer = ready.recvfrom(100)
                    if ready is not client:
                        ready.sendto(servers[ready], peer)
                        continue
                    now = time.monotonic()
                    silence, last = max(silence, now - last), now
                    seen += data == b"node2"
                    if not steps:
                        steps = [begin(ADDRESS, "stop"), begin(ADDRESS, "start", node="node2")]
        for step in steps:
            self.assertEqual(step.communicate(timeout=LIMIT), ("", ""))
            self.assertEqual(step.returncode, 0)
        return silence


if __name__ == "__main__":
    unittest.main()
