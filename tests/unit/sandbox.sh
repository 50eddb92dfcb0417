#!/bin/sh
# sandbox.sh COMMAND [ARG ...]: runs a test as root in a mount namespace of its own, where the
# daemon's fixed directories are empty and writable: /etc/duskvale, /usr/share/duskvale/run.d and
# /sys/bus. The machine's own files stay as they are, and all of it goes with the process.
set -eu
if [ "${DUSKVALE_SANDBOX:-}" != inside ]; then
    DUSKVALE_SANDBOX=inside exec unshare --mount --propagation private -- "$0" "$@"
fi
unset DUSKVALE_SANDBOX
mount -t tmpfs sandbox /mnt
for dir in /etc /usr/share; do
    layer=/mnt$dir
    mkdir -p "$layer/upper" "$layer/work"
    mount -t overlay -o "lowerdir=$dir,upperdir=$layer/upper,workdir=$layer/work" overlay "$dir"
done
mount -t tmpfs sandbox /sys/bus
rm -rf /etc/duskvale /usr/share/duskvale
mkdir -p /etc/duskvale /usr/share/duskvale/run.d
exec "$@"
