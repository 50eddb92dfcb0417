"""The file by which a lab that stays ("lab up") is found again. It goes with the machine's /run."""

import json
import os
import pathlib

from .processes import Process
from .waiting import LabError

DIRECTORY = pathlib.Path("/run/duskvale-lab")


def save(name, process):
    """Notes that the lab `name` is the supervisor `process`. Raises LabError if there is one."""
    clean()
    DIRECTORY.mkdir(exist_ok=True)
    new = DIRECTORY / f".{name}.{process.pid}"
    new.write_text(json.dumps({"pid": process.pid, "started": process.started}), encoding="utf-8")
    try:
        os.link(new, _path(name))  # fails where a rename would replace
    except FileExistsError as error:
        raise LabError(f"the lab '{name}' is up already") from error
    finally:
        new.unlink()


def find(name):
    """The supervisor of the lab `name` as a Process, or None if no such lab is up."""
    try:
        facts = json.loads(_path(name).read_text(encoding="utf-8"))
    except FileNotFoundError:
        return None
    try:
        return Process(facts["pid"], facts["started"])
    except LabError:
        return None  # It crashed, or the pid is someone else's by now.


def forget(name):
    _path(name).unlink(missing_ok=True)


def names():
    """The names of the labs that are up."""
    if not DIRECTORY.is_dir():
        return []
    known = sorted(path.stem for path in DIRECTORY.glob("[!.]*.json"))
    found = []
    for name in known:
        process = find(name)
        if process:
            process.close()
            found.append(name)
    return found


def clean():
    """Removes what labs that crashed have left: nothing but their files here."""
    if DIRECTORY.is_dir():
        alive = set(names())
        for path in DIRECTORY.glob("[!.]*.json"):
            if path.stem not in alive:
                path.unlink(missing_ok=True)


def _path(name):
    return DIRECTORY / f"{name}.json"
