"""What the daemons carry between the nodes besides mastership, and who may ask them for it."""

import shutil

from support import AS_NOBODY, said

from lab.bus import NAME, PATH
from lab.waiting import now

NOT_PERMITTED = 6  # of duskvalectl


def test_hotplug_is_told_everywhere_with_the_values_of_sysfs(lab):
    node = lab.node(2)
    node.add_device("0000:01", "rack 4", "LC-100")
    lab.start()
    lab.wait_master()
    assert [member.get("LumacratesCount") for member in lab.nodes] == [0, 1, 0]

    long_id = "é" * 30  # cut at 39 bytes, in the middle of a character
    path = node.add_device("0000:02", "  rack 5 ", long_id)
    assert node.get("LumacratesCount") == 1  # read, not scanned
    since = now()
    node.call("LumacrateHotplug", True, path, "not this", "nor that")
    for member in lab.nodes:
        found = member.wait_signal("NotifyLumacrateHotplug", 2, 2, True, since=since)
        hardware_id, *rest = found.arguments[3:]
        assert rest == ["  rack 5", path]
        assert hardware_id.startswith("é" * 19) and "é" * 20 not in hardware_id
        member.wait_log(rf"^INFO: From 2: now 2 Lumacrates: ADDED \[é*.*\] @  rack 5 \({path}\)$")
    since = now()
    node.unplug("0000:01")
    for member in lab.nodes:
        removed = member.wait_signal("NotifyLumacrateHotplug", 2, 1, False, "", "", since=since)
        assert removed.arguments[5].endswith("/0000:01/lumacrates:0000:01")
    assert [member.get("LumacratesCount") for member in lab.nodes] == [0, 1, 0]


def test_unprivileged_user_may_look_and_nothing_else(cluster):
    node = cluster.node(1)
    properties = "org.freedesktop.DBus.Properties"

    def send(member, *arguments):
        """The error's text, or "" when it was granted."""
        command = ["dbus-send", "--system", "--print-reply", f"--dest={NAME}", PATH, member]
        return node.run([*AS_NOBODY, *command, *arguments], check=False).stderr

    for member, *arguments in (
        ["org.freedesktop.DBus.Introspectable.Introspect"],
        [f"{properties}.GetAll", f"string:{NAME}"],
        [f"{properties}.Get", f"string:{NAME}", "string:IsMaster"],
    ):
        assert send(member, *arguments) == ""
    since = now()
    for member, *arguments in (
        [f"{NAME}.TakeOver"], [f"{NAME}.GiveBack"], [f"{NAME}.KeepAlive"],
        [f"{NAME}.SendMessage", "string:text"],
        [f"{NAME}.SetFreeze", "boolean:true", "string:reason"],
        [f"{NAME}.LumacrateHotplug", "boolean:true", "string:/", "string:", "string:"],
        [f"{properties}.Set", f"string:{NAME}", "string:PreferredMaster", "variant:boolean:true"],
    ):
        assert "AccessDenied" in send(member, *arguments), member
    program = "/run/duskvalectl"  # The build may lie where only root gets to.
    shutil.copy(node.file(node.ctl_path), node.file(program))
    assert node.run([*AS_NOBODY, program, "status"]).stdout == said(node)
    refused = node.run([*AS_NOBODY, program, "send", "hi"], check=False)
    assert (refused.returncode, refused.stdout) == (NOT_PERMITTED, "")
    assert "the policy of the system bus does not let you ask this" in refused.stderr
    assert node.get("PreferredMaster") is False
    assert not node.signals_since(since)
