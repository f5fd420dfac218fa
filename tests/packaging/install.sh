#!/bin/bash
# Installs, upgrades, removes and purges the Debian packages with dpkg in the private root, and looks
# at what each leaves. Usage: install.sh PACKAGES, the directory that scripts/package fills.
set -uo pipefail

self=$(readlink -f "${BASH_SOURCE[0]}")
source_dir=$(dirname "$self")/../..
readonly init=/etc/init.d/kxcore
readonly policy=/usr/share/dbus-1/system.d/com.veltrasys.kx.core.conf

if [[ ${1:?"the directory of the packages"} != --inside ]]; then
    packages=$(readlink -f "$1")
    ls "$packages"/*.deb >/dev/null 2>&1 || { echo "no packages in $1; scripts/package makes them"; exit 77; } # skipped
    exec "$source_dir/scripts/sandbox" --packages --bind "$source_dir" --bind "$packages" -- "$self" --inside "$packages"
fi

# shellcheck source=/dev/null
source "$source_dir/tests/support/checks.sh"
packages=$2
# The private root comes with the groups, and a build machine may forbid its packages to start services.
sed -i '/^kx/d' /etc/group
rm -f /usr/sbin/policy-rc.d
mkdir -p /home/pay && chown pay:pay /home/pay

check "the packages install" dpkg --install "$packages"/*.deb
check "the groups exist" getent group kxcore kxadmin
check "the service is enabled for SysV" test -L /etc/rc2.d/S01kxcore
check "and for systemd" grep -q "systemctl .*preset kxcore.service" /run/standins/calls
check "installing starts nothing" not pgrep --exact kxcore
check "the init script starts the daemon" "$init" start

# An application runs the daemon's program, which can do nothing for it, and has it write to a pipe that nobody reads.
# shellcheck disable=SC2016 # Perl
setpriv --reuid pay --regid pay --init-groups perl -MFcntl -e '$^F = 9; pipe R, W; fcntl W, F_SETFL, O_NONBLOCK;
    1 while syswrite W, "x" x 4096; fcntl W, F_SETFL, 0; open STDOUT, ">&W"; $SIG{TERM} = "IGNORE";
    exec qw(/usr/sbin/kxcore --help)' &
check "there is an impostor" eventually test "/proc/$!/exe" -ef /usr/sbin/kxcore
check "the daemon is stopped beside an impostor" "$init" stop
check_equal "which is known not to run" 3 "$(status_of "$init" status)"
check "so that it can be started" "$init" start

cp -R "$source_dir/tests/packaging/consumer" /tmp/
check "a client is configured" cmake -G Ninja -S /tmp/consumer -B /tmp/consumer/build
check "and built from the packages alone" cmake --build /tmp/consumer/build
check "and gets its answers" /tmp/consumer/build/consumer

before=$(pgrep --exact kxcore)
echo "# changed by the operator" >>"$init"
mkdir /tmp/next && "$source_dir/tests/packaging/next-version" "$packages" /tmp/next
check "the next version installs" dpkg --install /tmp/next/*.deb
check "and differs" grep -q "of the next version" "$policy"
check_equal "the daemon was left alone" "$before" "$(pgrep --exact kxcore)"
check "the init script still finds it" "$init" restart
check "and makes it another process" test "$before" != "$(pgrep --exact kxcore)"

check "the daemon's package is removed" dpkg --remove kxcore
check "the daemon was ended" not pgrep --exact kxcore
check "its policy is gone" test ! -e "$policy"
check "the tools work without it" kxctl --version
check "it comes back" dpkg --install /tmp/next/kxcore_*.deb
check "with the operator's change" grep -q "operator" "$init"

mapfile -t files < <(dpkg-query --listfiles kxcore kxcore-platform kxcore-tools kxcore-dev |
    grep -E 'kx|qtplatform|veltra' | sort -u)
check "everything is purged" dpkg --purge kxcore kxcore-dev kxcore-tools kxcore-platform
check_equal "no file is left" "" "$(ls -d "${files[@]}" /var/lib/kxregistry 2>/dev/null)"
check_equal "nor a link, nor what systemd remembers" "" \
    "$(find /etc/rc?.d /etc/systemd /var/lib/systemd -name '*kxcore*' 2>/dev/null)"
check "the groups stay" getent group kxcore kxadmin
finish
