"""What the tour puts on each node: the steps of the web server and its address, and its watch."""

import pathlib
import shlex
import sys

from ..examples import install_address

PORT = 80

_WEB_STEP = "50-web.run"

_WEB = """\
#!/bin/sh
# Starts the web server on the master and stops it on a slave; both may be asked for again.
pid_file=/run/tour-web.pid
running() { [ -e $pid_file ] && kill -0 "$(cat $pid_file)" 2>/dev/null; }
case $1 in
start) running || {server} $pid_file {port} >/dev/null 2>&1 ;;
stop)
    ! running || kill "$(cat $pid_file)"
    while running; do sleep 0.01; done
    rm -f $pid_file
    ;;
esac
"""


_WEB_WATCH = """\
#!/bin/sh
kill -0 "$(cat /run/tour-web.pid)" 2>/dev/null || { echo "it does not run"; exit 1; }
"""


def install(node):
    """The address comes last and goes first: whoever reaches it finds the server running."""
    install_address(node)
    web = pathlib.Path(__file__).with_name("web.py")
    server = shlex.join([sys.executable, "-I", "-S", str(web)])
    node.write_watch("50-web.watch", _WEB_WATCH)
    node.write_step(_WEB_STEP, _WEB.replace("{server}", server).replace("{port}", str(PORT)))
