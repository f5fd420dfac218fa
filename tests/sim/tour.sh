#!/bin/bash
# Types the tour of README.md at the prompt of the desk terminal, as a new user does. Each command must do what
# the tour says of it.
set -euo pipefail
cd /tmp

source_dir=$1
readonly source_dir
readonly seen=/tmp/typescript
readonly patience=20 # seconds

fail() {
    echo "tour: $*" >&2
    cat "$seen" >&2
    exit 1
}

# within COMMAND...: runs it until it succeeds
within() {
    local deadline=$((SECONDS + patience))
    until "$@"; do
        [[ $SECONDS -lt $deadline ]] || fail "not within $patience s: $*"
        sleep 0.05
    done
}

# shown PATTERN: whether the prompt has shown such a line since the last command
shown() {
    tail -c "+$mark" "$seen" | grep -qE "$1"
}

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
            type_keys 'kxctl zone set UTC'
            within shown '/Tools +TimeInfoChanged .* UTC +MANUAL'
            pgrep -f 'kxctl monitor' >/dev/null || fail 'it does not run until Ctrl-C'
            # Which ends the command, not the terminal.
            printf '\003' >&3
            within ended 'kxctl monitor'
            ;;
        'busctl --system introspect '*) within shown '\.Enumerate +method' ;;
        'busctl --system call '*\\) ;;
        *'Start "a{sv}" 2 application s pay binary s printer') within shown 'a\{sv\} 1 "errorCode" i 0' ;;
        *) fail "no outcome is known of: $1" ;;
    esac
}

type_keys() {
    printf '%s\r' "$1" >&3
}

# The commands, in their order.
tour() {
    sed -n '/^## Five minutes/,/^## /s/^    //p' "$source_dir/README.md"
}

mkfifo keys
NO_COLOR=1 script -qfec /usr/libexec/kx-sim/boot "$seen" <keys >/dev/null &
terminal=$!
exec 3>keys
mark=1
within shown 'Type help for the commands'

count=0
while IFS= read -r command; do
    [[ -n $command ]] || continue
    mark=$(($(wc -c <"$seen") + 1))
    type_keys "$command"
    outcome "$command"
    count=$((count + 1))
done < <(tour)
[[ $count -ge 14 ]] || fail "only $count commands found"

# With nothing running, the same key switches the terminal off.
printf '\003' >&3
wait "$terminal" || fail "the terminal ended with status $?"
shown 'The core daemon ended as asked'
