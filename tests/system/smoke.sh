#!/bin/bash
# Starts the installed daemon and asks it for something of each object, in the private root. The daemon and kxctl may
# be of another architecture than this shell, the bus and the stand-ins.
# shellcheck disable=SC2317 # functions are called through check
set -uo pipefail

[[ -e /run/kx-private-root ]] || { echo "this runs in scripts/sandbox only" >&2; exit 1; }
readonly tries=$((100 * ${KX_TIME_FACTOR:-1}))

# check TEXT COMMAND...: ends the test unless the command succeeds
check() {
    local text=$1
    shift
    if "$@"; then
        echo "ok      $text"
        return
    fi
    echo "FAILED  $text: $*"
    tail -n 20 /var/log/messages
    exit 1
}

# eventually COMMAND...: waits until the command succeeds
eventually() {
    local try
    for ((try = 0; try < tries; ++try)); do
        ! "$@" >/dev/null 2>&1 || return 0
        sleep 0.1
    done
    return 1
}

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
has_status() {
    local expected=$1 status=0
    shift
    "$@" || status=$?
    test "$status" = "$expected"
}

main() {
    local daemon
    install_application
    kxcore --no-daemon &
    daemon=$!
    check "the daemon serves, and lists the application" eventually lists_the_application
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
    check "an ordinary account is refused" \
        has_status 1 setpriv --reuid guest --regid guest --init-groups kxctl apps
    check "so is a second daemon" has_status 2 kxcore --no-daemon
    check "the daemon is told to end" kill "$daemon"
    check "and does" has_status 0 wait "$daemon"
}

main "$@"
