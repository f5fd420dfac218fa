#!/bin/bash
# Installs, upgrades, removes, purges and reinstalls the Debian packages with dpkg in the private root, and looks
# at what each leaves. Usage: install.sh PACKAGES, the directory that scripts/package fills.
# shellcheck disable=SC2317 # functions are called through check
set -uo pipefail

self=$(readlink -f "${BASH_SOURCE[0]}")
source_dir=$(dirname "$self")/../..

readonly skipped=77 # as ctest knows it
readonly init=/etc/init.d/kxcore
readonly policy=/usr/share/dbus-1/system.d/com.veltrasys.kx.core.conf

# shellcheck source=/dev/null
source "$source_dir/tests/support/checks.sh"

as() {
    local account=$1
    shift
    setpriv --reuid "$account" --regid "$account" --init-groups "$@"
}

# next_version DIRECTORY: the packages once more, as the version that follows
next_version() {
    local package tree=$1/tree
    for package in "$packages"/*.deb; do
        dpkg-deb --raw-extract "$package" "$tree"
        sed -i -e 's/^Version: .*/&.1/' -e 's/(= \([0-9.]*\))/(= \1.1)/' "$tree/DEBIAN/control"
        [[ ! -e $tree$policy ]] || echo "<!-- of the next version -->" >>"$tree$policy"
        dpkg-deb --build --root-owner-group "$tree" "$1" >/dev/null
        rm -rf "$tree"
    done
}

version_of() { dpkg-query --show --showformat '${Version}' "$1"; }
state_of() { dpkg-query --show --showformat '${db:Status-Status}' kxcore 2>/dev/null; }
pid_of_daemon() { pgrep --exact kxcore; }
is_enabled() { test -L /etc/rc2.d/S01kxcore; }
is_masked() { test -L /etc/systemd/system/kxcore.service; }

# is_manual_page FILE: below /usr/share/man, and without a warning of the formatter
is_manual_page() {
    local warnings
    warnings=$(LC_ALL=C.UTF-8 man --warnings --local-file "/usr/share/man/$1" 2>&1 >/dev/null) || return
    test -z "$warnings"
}

manuals_are_installed() {
    local page
    for page in man1/kxctl.1 man1/kxregistry.1 man5/app.conf.5 man8/kxcore.8; do
        check "there is a manual page $page" is_manual_page "$page.gz"
    done
}

installs() {
    check "the packages install" dpkg --install "$packages"/*.deb
    check "their dependencies are met" dpkg --configure --pending
    check "the groups exist" getent group kxcore kxadmin
    check "the service is enabled for SysV" is_enabled
    check "and for systemd" grep -q "systemctl .*preset kxcore.service" /run/standins/calls
    check "installing starts nothing" not pid_of_daemon
    check_equal "the init script says so" 3 "$("$init" status >/dev/null; echo $?)"
}

# The bus was running before there was a policy, and before the groups were.
serves_by_policy() {
    mkdir -p /home/pay && chown pay:pay /home/pay
    adduser --quiet clerk kxcore
    adduser --quiet admin kxadmin
    check "the init script starts the daemon" "$init" start
    check "starting again is no failure" "$init" start
    check_equal "there is one daemon" 1 "$(pid_of_daemon | wc -l)"
    check "a member of the group sees the applications" as clerk sh -c 'kxctl apps | grep -q ^pay'
    check "but may not reboot" not as clerk kxctl system reboot
    check "an application may not even look" not as pay kxctl apps
    check "a member of the other group may" as admin kxctl system reboot
}

# An application runs the daemon's program, which can do nothing for it, and has it write to a pipe that nobody reads.
impersonates_the_daemon() {
    # shellcheck disable=SC2016 # Perl
    setpriv --reuid pay --regid pay --init-groups perl -MFcntl -e '$^F = 9; pipe R, W; fcntl W, F_SETFL, O_NONBLOCK; 1 while syswrite W, "x" x 4096;
        fcntl W, F_SETFL, 0; open STDOUT, ">&W"; $SIG{TERM} = "IGNORE"; exec qw(/usr/sbin/kxcore --help)' &
    impostor=$!
    while [[ -d /proc/$impostor && $(readlink "/proc/$impostor/exe") != /usr/sbin/kxcore ]]; do read -r -t 0.05 <> <(:); done
}

tells_impostors_apart() {
    local impostor
    impersonates_the_daemon
    check "the daemon is stopped beside an impostor" "$init" stop
    check_equal "which is known not to run" 3 "$("$init" status >/dev/null; echo $?)"
    check "so that it can be started" "$init" start
    wait "$impostor" 2>/dev/null # ended with all that runs as an application
}

clients_build() {
    cp -R "$source_dir/tests/packaging/consumer" /tmp/
    check "a client is configured" cmake -G Ninja -S /tmp/consumer -B /tmp/consumer/build
    check "and built from the packages alone" cmake --build /tmp/consumer/build
    check "and gets its answers" /tmp/consumer/build/consumer
}

upgrades() {
    local before
    before=$(pid_of_daemon)
    echo "# changed by the operator" >>"$init"
    mkdir /tmp/next
    next_version /tmp/next
    check "the next version installs" dpkg --install /tmp/next/*.deb
    check_equal "and is the one installed" "$(version_of kxcore)" "$(version_of kxcore-tools)"
    check "and differs" grep -q "of the next version" "$policy"
    check "the operator's change is kept" grep -q "operator" "$init"
    check "members stay members" sh -c 'getent group kxcore | grep -q clerk'
    check_equal "the daemon was left alone" "$before" "$(pid_of_daemon)"
    check "the init script still finds it" "$init" status
    check "and restarts it" "$init" restart
    check "as another process" test "$before" != "$(pid_of_daemon)"
}

is_removed() {
    check "the daemon's package is removed" dpkg --remove kxcore
    check "the daemon was ended" not pid_of_daemon
    check "its policy is gone" test ! -e "$policy"
    check "its configuration stays" test -e "$init"
    check "the service cannot be started" is_masked
    check "and comes back" dpkg --install /tmp/next/kxcore_*.deb
    check "with the operator's change" grep -q "operator" "$init"
    check "unmasked" not is_masked
    check "and starts" "$init" start
}

is_purged() {
    local files
    mapfile -t files < <(dpkg-query --listfiles kxcore kxcore-platform kxcore-tools kxcore-dev |
        grep -E 'kx|qtplatform|veltra' | sort -u)
    check "everything is purged" dpkg --purge kxcore kxcore-dev kxcore-tools kxcore-platform
    check_equal "no file is left" "" "$(ls -d "${files[@]}" 2>/dev/null)"
    check_equal "nor a link, nor what systemd remembers" "" \
        "$(find /etc/rc?.d /etc/systemd /var/lib/systemd -name '*kxcore*' 2>/dev/null)"
    check "nor the registry" test ! -e /var/lib/kxregistry
    check "the groups stay" getent group kxcore kxadmin
    check_equal "no package knows of it" "" "$(state_of)"
}

is_installed_again() {
    check "the packages install after a purge" dpkg --install "$packages"/*.deb
    check "the operator's change is forgotten" not grep -q "operator" "$init"
    check "members are still members" sh -c 'getent group kxcore | grep -q clerk'
    check "the daemon starts" "$init" start
    check "and stops" "$init" stop
    check "stopping again is no failure" "$init" stop
    check_equal "a wrong command is refused" 2 "$("$init" dance 2>/dev/null; echo $?)"
    check_equal "an ordinary account as well" 4 "$(as guest "$init" start 2>/dev/null; echo $?)"
    rm /usr/sbin/kxcore
    check_equal "so is starting what is not there" 5 "$("$init" start 2>/dev/null; echo $?)"
}

inside() {
    packages=$1
    # The private root comes with the groups, and a build machine may forbid its packages to start services.
    sed -i '/^kx/d' /etc/group
    rm -f /usr/sbin/policy-rc.d
    # The formatter of manual pages misses the operator's macros when there is no such file.
    mkdir -p /etc/groff && touch /etc/groff/man.local
    installs
    manuals_are_installed
    serves_by_policy
    tells_impostors_apart
    clients_build
    upgrades
    is_removed
    is_purged
    is_installed_again
    finish
}

outside() {
    if ! ls "$1"/*.deb >/dev/null 2>&1; then
        echo "there are no packages in $1; scripts/package makes them"
        exit $skipped
    fi
    exec "$source_dir/scripts/sandbox" --packages --bind "$source_dir" --bind "$1" -- "$self" --inside "$1"
}

case ${1:-} in
    --inside) inside "$2" ;;
    ?*) outside "$(readlink -f "$1")" ;;
    *) echo "Usage: $0 PACKAGES" >&2; exit 2 ;;
esac
