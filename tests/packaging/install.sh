#!/bin/bash
# Installs the packages with dpkg in the private root and looks at what needs no machine that boots (tests/booted has
# the rest). Usage: install.sh PACKAGES, the directory that scripts/package fills.
set -euo pipefail

self=$(readlink -f "${BASH_SOURCE[0]}")
source_dir=${self%/tests/*}
packages=$(readlink -m "${1:?"the directory of the packages"}")
if [[ ${2:-} != --inside ]]; then
    ls "$packages"/*.deb >/dev/null 2>&1 || { echo "no packages in $1; scripts/package makes them"; exit 77; } # skipped
    exec "$source_dir/scripts/sandbox" --packages --bind "$source_dir" --bind "$packages" -- "$self" "$packages" --inside
fi

set -x # the last command is the one that failed
init=/etc/init.d/kxcore
# The private root comes with the groups, and a build machine may forbid its packages to start services.
sed -i '/^kx/d' /etc/group
rm -f /usr/sbin/policy-rc.d
mkdir -p /home/pay && chown pay:pay /home/pay

dpkg --install "$packages"/*.deb
[[ -z $(pgrep --exact kxcore) ]] # installing starts nothing
"$init" start

# An application runs the daemon's program, which can do nothing for it, and has it write to a pipe that nobody reads.
# shellcheck disable=SC2016 # Perl
setpriv --reuid pay --regid pay --init-groups perl -MFcntl -e '$^F = 9; pipe R, W; fcntl W, F_SETFL, O_NONBLOCK;
    1 while syswrite W, "x" x 4096; fcntl W, F_SETFL, 0; open STDOUT, ">&W"; $SIG{TERM} = "IGNORE";
    exec qw(/usr/sbin/kxcore --help)' &
timeout 60 bash -c "until [[ /proc/$!/exe -ef /usr/sbin/kxcore ]]; do sleep 0.1; done"
"$init" stop
[[ $("$init" status >/dev/null; echo $?) -eq 3 ]] # stopped, whatever the impostor does
"$init" start

# A client is built from the packages alone, and gets its answers.
cmake -G Ninja -S "$source_dir/tests/packaging/consumer" -B /tmp/consumer
cmake --build /tmp/consumer
/tmp/consumer/consumer
