"""Corosync on the nodes of a lab: its configuration, and what its log says of the ring."""

import re

_CONFIG = """\
totem {{
  version: 2
  cluster_name: {cluster}
  transport: {transport}
  token: {token}
{crypto}}}
logging {{
  to_syslog: yes
  to_stderr: no
}}
nodelist {{
{nodes}}}
"""

_SYSTEM = """\
system {
  # A lab may have no right to real-time scheduling, and must leave the machine's cgroups alone.
  sched_rr: no
  move_to_root_cgroup: no
}
"""

_QUORUM = """\
quorum {
  provider: corosync_votequorum
}
"""

_NODE = """\
  node {{
    nodeid: {id}
    name: {name}
    ring0_addr: {address}
  }}
"""

# Knet, the default, knows no larger node ids, and is the only transport that encrypts.
_KNET_MAX_ID = 65535
_CRYPTO = {
    "knet": "  crypto_cipher: aes256\n  crypto_hash: sha256\n",
    "udpu": "  crypto_cipher: none\n  crypto_hash: none\n",
}

_STARTING = re.compile(r"Corosync Cluster Engine .*starting up")
_MEMBERS = re.compile(r"Sync members\[\d+\]: (.*)")
_SYNCED = "Completed service synchronization"


def config_text(cluster, token, nodes):
    """The corosync.conf; `token` in ms; `nodes`: the facts of each, as cluster.py has them."""
    transport = "knet" if all(node["id"] <= _KNET_MAX_ID for node in nodes) else "udpu"
    texts = "".join(_NODE.format(**node) for node in nodes)
    quorum = _QUORUM if any(node["image"] == "keeper" for node in nodes) else ""
    text = _CONFIG.format(cluster=cluster, transport=transport, token=token, nodes=texts,
                          crypto=_CRYPTO[transport])
    return text + quorum + _SYSTEM


def config_from(template, nodes):
    """The example configuration `template` for these nodes: with their names, and what a lab needs.

    Its addresses are those of a lab already.
    """
    for node in nodes:
        its_name = rf"(?<=nodeid: {node['id']}\n        name: )\w+"
        template = re.sub(its_name, node["name"], template)
    # There are no certificates.
    return template.replace("tls: on", "tls: off") + _SYSTEM


def views(entries):
    """The ring as a node saw it, from its corosync log: a list of (time, set of node ids).

    A view counts from the moment when corosync serves in it. After a start the list begins again.
    """
    found = []
    members = None
    for entry in entries:
        if _STARTING.search(entry.text):
            found, members = [], None
        elif match := _MEMBERS.search(entry.text):
            members = {int(word) for word in match[1].split()}
        elif _SYNCED in entry.text and members is not None:
            found.append((entry.time, members))
            members = None
    return found
