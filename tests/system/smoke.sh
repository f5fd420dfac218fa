#!/bin/bash
# Starts the installed daemon and asks it for something of each object, in the private root. The daemon and kxctl may
# be of another architecture than this shell, the bus and the stand-ins.
# shellcheck disable=SC2317 # functions are called through check
set -uo pipefail

[[ -e /run/kx-private-root ]] || { echo "this runs in scripts/sandbox only" >&2; exit 1; }

# shellcheck source=/dev/null
source "$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")/../support/checks.sh"

install_application() {
    mkdir -p /home/pay/bin
    echo '<application><run_on_boot>bin/receipt boot</run_on_boot></application>' >/home/pay/app.conf
    # The program of another architecture is the one that the script executes.
    # shellcheck disable=SC2016 # a parameter of that script
    printf '#!/bin/sh\nexec kxctl --version >"/tmp/pay/$1"\n' >/home/pay/bin/receipt
    chmod 0755 /home/pay/bin/receipt
    chown -R pay:pay /home/pay
}

lists_the_application() { kxctl apps | grep -Eq '^pay +pay +4002/4002 +FastCGI'; }
has_run() { [[ $(stat -c %U "/tmp/pay/$1") = pay && $(<"/tmp/pay/$1") = kxctl* ]]; }

main() {
    local daemon
    trap '[[ $? = 0 ]] || tail -n 20 /var/log/messages' EXIT
    install_application
    kxcore --no-daemon &
    daemon=$!
    check "the daemon serves, and lists the application" eventually lists_the_application || finish
    check "whose boot program runs as its account" eventually has_run boot
    check "a program is started on demand" kxctl start pay receipt demand
    check "and runs as its account" eventually has_run demand
    check "a caller's text is logged" kxctl system log "smoke and mirrors"
    check "where the system logs" eventually grep -Fq "smoke and mirrors" /var/log/messages
    check "the USB port is configured" kxctl system usb --mode serial
    check "by a flag file" test -e /etc/platform/usb_gadget/serial
    check "and kernel modules" grep -q '^modprobe ' /run/standins/calls
    check "the time zone is set" kxctl zone set Europe/Berlin
    check "by its link" test /etc/localtime -ef /usr/share/zoneinfo/Europe/Berlin
    check_equal "an ordinary account is refused" 1 \
        "$(status_of setpriv --reuid guest --regid guest --init-groups kxctl apps)"
    check_equal "so is a second daemon" 2 "$(status_of kxcore --no-daemon)"
    check "the daemon is told to end" kill "$daemon"
    wait "$daemon"
    check_equal "and does" 0 $?
    finish
}

main "$@"
