# shellcheck shell=bash
# To be sourced by a test of the desk terminal's prompt: keys go in on descriptor 3, what is seen goes to a file.

readonly seen=/tmp/typescript
readonly patience=20 # seconds

fail() {
    echo "${0##*/}: $*" >&2
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

# shown PATTERN: whether such a line was seen since look_anew
shown() {
    tail -c "+$mark" "$seen" | grep -qE "$1"
}

look_anew() {
    mark=$(($(wc -c <"$seen") + 1))
}

type_line() {
    printf '%s\r' "$1" >&3
}

press_ctrl_c() {
    printf '\003' >&3
}

# start_terminal [OPTION]...
start_terminal() {
    mkfifo /tmp/keys
    : >"$seen"
    NO_COLOR=1 script -qfec "/usr/libexec/kx-sim/boot $*" "$seen" </tmp/keys >/dev/null &
    terminal=$!
    exec 3>/tmp/keys
    look_anew
    within shown 'Type help for the commands'
}

# With nothing running, Ctrl-C switches the terminal off.
stop_terminal() {
    press_ctrl_c
    wait "$terminal" || fail "the terminal ended with status $?"
    shown 'The core daemon ended as asked' || fail 'the core daemon did not end as asked'
}
