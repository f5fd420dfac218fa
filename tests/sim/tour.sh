#!/bin/bash
# Types the tour of README.md at the prompt of the desk terminal, as a new user does. Each command must do what
# the tour says of it.
set -euo pipefail
# shellcheck source=prompt.sh disable=SC1091
. "$(dirname "$0")/prompt.sh"

source_dir=$1
readonly source_dir

has() {
    grep -qsE "$2" "$1"
}

ended() {
    ! pgrep -f "$1" >/dev/null
}

links_to() {
    [[ $(readlink "$1") = "$2" ]]
}

# outcome COMMAND: waits for what the command of the tour is there for
outcome() {
    case $1 in
        'kxctl apps '*) within shown 'pay +pay +4002/4002 +CGI +/home/pay/bin/payd' ;;
        'kxctl app pay '*) within shown 'home directory +/home/pay' ;;
        'kxctl start pay printer Totals '*) within has /tmp/pay/printout.txt '^Totals$' ;;
        'kxctl start '* | 'kxctl home '*) within shown '> shown +Desktop' ;;
        'kxctl zone set Europe/Berlin'*) within links_to /etc/localtime /usr/share/zoneinfo/Europe/Berlin ;;
        'kxctl var set MSG "hello world"'*) within has /etc/rc.d/rc.platform.conf '^export MSG="hello world"$' ;;
        'kxctl system usb '*) within shown 'USB configuration completed successfully' ;;
        'kxctl system call 99 '*) within shown 'DoLogData.*a line for the log' ;;
        'kxctl check /home/broken '*) within shown 'broken: errors: 7' && within shown 'exit status 1' ;;
        'kxctl monitor '*)
            within shown 'Ctrl-C ends'
            type_line 'kxctl zone set UTC'
            within shown '/Tools +TimeInfoChanged .* UTC +MANUAL'
            pgrep -f 'kxctl monitor' >/dev/null || fail 'it does not run until Ctrl-C'
            # Which ends the command, not the terminal.
            press_ctrl_c
            within ended 'kxctl monitor'
            ;;
        'busctl --system introspect '*) within shown '\.Enumerate +method' ;;
        'busctl --system call '*\\) ;;
        *'Start "a{sv}" 2 application s pay binary s printer') within shown 'a\{sv\} 1 "errorCode" i 0' ;;
        *) fail "no outcome is known of: $1" ;;
    esac
}

# The commands, in their order.
tour() {
    sed -n '/^## Five minutes/,/^## /s/^    //p' "$source_dir/README.md"
}

# shellcheck disable=SC2119 # without options
start_terminal
count=0
while IFS= read -r command; do
    [[ -n $command ]] || continue
    look_anew
    type_line "$command"
    outcome "$command"
    count=$((count + 1))
done < <(tour)
[[ $count -ge 14 ]] || fail "only $count commands found"
stop_terminal
