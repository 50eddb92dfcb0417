"""What the daemons tell the other nodes of devices."""

from lab.waiting import now


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
