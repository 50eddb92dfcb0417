#!/bin/sh
# sandbox.sh COMMAND [ARG ...]: runs a test as root in mount and process namespaces of its own,
# where the daemon's fixed directories are empty and writable: /etc/duskvale,
# /usr/share/duskvale/run.d, /sys/bus, and /dev without a log socket and with terminals of its own.
# The machine's own files stay as they are, and all of it goes with the process, daemonised children
# included.
set -eu
if [ "${DUSKVALE_SANDBOX:-}" != inside ]; then
    DUSKVALE_SANDBOX=inside exec unshare --mount --propagation private \
        --pid --fork --kill-child --mount-proc -- "$0" "$@"
fi
unset DUSKVALE_SANDBOX
# Where a build that counts lines puts its counts; process ids repeat in another sandbox.
[ -z "${PROFILES:-}" ] || export LLVM_PROFILE_FILE="$PROFILES/${1##*/}-%p.profraw"
mount -t tmpfs sandbox /mnt
for dir in /dev /etc /usr/share; do
    layer=/mnt$dir
    mkdir -p "$layer/upper" "$layer/work"
    mount -t overlay -o "lowerdir=$dir,upperdir=$layer/upper,workdir=$layer/work" overlay "$dir"
done
mount -t tmpfs sandbox /sys/bus
mkdir -p /dev/pts
mount -t devpts -o newinstance,ptmxmode=0666 sandbox /dev/pts
rm -rf /etc/duskvale /usr/share/duskvale /dev/log
mkdir -p /etc/duskvale /usr/share/duskvale/run.d
# Not exec: the first process of a namespace cannot die of its own abort().
status=0
"$@" || status=$?
exit "$status"
