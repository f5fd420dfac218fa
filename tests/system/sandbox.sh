#!/bin/bash
# Tests the private root: drives scripts/sandbox, and with --inside looks around in it.
# Usage: sandbox.sh STAGE
# shellcheck disable=SC2317 # functions are called through check and eventually
set -uo pipefail

self=$(readlink -f "${BASH_SOURCE[0]}")
source_dir=$(dirname "$self")/../..
sandbox=$source_dir/scripts/sandbox

# shellcheck source=/dev/null
source "$source_dir/tests/support/checks.sh"

# --- inside: tries nothing that would hurt the machine, should the isolation be broken -----------------------------

machine_is_out_of_reach() {
    check "the clock cannot be set" not date -s "$(date -Is)"
    check "the reboot call is refused" not busybox reboot -f
    check "/sys is empty" test -z "$(ls -A /sys)"
    check "sysfs cannot be mounted" not mount -t sysfs sysfs /sys
    check "/proc/sys cannot be written" not sh -c 'echo 1 >/proc/sys/vm/drop_caches'
    check "/usr cannot be written" not touch /usr/bin/true
    check "a bound directory cannot be written" not touch "$source_dir/README.md"
    check_equal "the processes are our own" "bash" "$(cat /proc/1/comm)"
    check_equal "the network is our own" "lo" "$(ip -o link show up | awk -F': ' '{ print $2 }')"
    check_equal "no home is left in sight" "" "$(find /home /root -mindepth 1)"
    check_equal "no variable of the caller is seen" "" "${OUTSIDE_VARIABLE:-}"
    # The fourth is the listing's own.
    check_equal "only the standard descriptors are open" "0 1 2 3" "$(cat /run/descriptors)"
}

simultaneous_calls_are_kept_apart() {
    local calls=/run/standins/calls
    : >$calls
    for _ in {1..50}; do
        modprobe -a one $'two\nthree' &
    done
    wait
    check_equal "calls at once are recorded in one line each" "50 modprobe -a one two three" "$(uniq -c $calls | xargs)"
}

inside() {
    machine_is_out_of_reach
    simultaneous_calls_are_kept_apart
    finish
}

# --- outside -----------------------------------------------------------------------------------------------------

statuses_pass_through() {
    check_equal "status of the command" 7 "$(status_of "$sandbox" --no-bus sh -c 'exit 7')"
    check_equal "status of a killed command" 143 "$(status_of "$sandbox" --no-bus sh -c 'kill $$')"
    check_equal "status of a missing command" 127 "$(status_of "$sandbox" --no-bus start_bus)"
    check_equal "input and output pass through" "text" "$(echo text | "$sandbox" --no-bus cat)"
}

shows_directories_elsewhere() {
    local script="cat /mnt/a/file; touch /mnt/a/new 2>/dev/null || echo refused; touch /mnt/b/new"
    mkdir "$work/shown"
    echo text >"$work/shown/file"
    check_equal "a directory is read-only at its place" "text refused" \
        "$("$sandbox" --no-bus --mount /mnt/a "$work/shown" --mount-rw /mnt/b "$work/shown" sh -c "$script" | xargs)"
    check "and writable where that was asked for" test -e "$work/shown/new"
    check_equal "no place outside of /mnt and /tmp" 125 \
        "$(status_of "$sandbox" --mount /etc/passwd "$work/shown" true)"
}

# The command would leave a file in the work directory; unshare is replaced by the given script.
refuses_without_namespaces() {
    printf '#!/bin/bash\n%s\n' "$2" >"$work/bin/unshare"
    chmod +x "$work/bin/unshare"
    check_equal "refuses when unshare $1" 125 \
        "$(PATH=$work/bin:$PATH status_of "$sandbox" --bind-rw "$work" touch "$work/ran")"
    check "and does not run the command" test ! -e "$work/ran"
    rm "$work/bin/unshare"
}

# is_running SECONDS: whether there is a "sleep SECONDS", on the whole machine
is_running() {
    pgrep --full --exact "sleep $1"
}

leaves_nothing_after() {
    local signal=$1 expected=$2 seconds=$((RANDOM + 100000)) status=0 pid
    "$sandbox" sleep "$seconds" &
    pid=$!
    check "the command runs before SIG$signal" eventually is_running "$seconds"
    kill "-$signal" "$pid"
    wait "$pid" 2>/dev/null || status=$?
    check_equal "status after SIG$signal" "$expected" "$status"
    check "no process is left after SIG$signal" eventually not is_running "$seconds"
    check "no mount is left on the machine" not grep -q private-root /proc/self/mounts
}

two_run_at_once() {
    local first
    "$sandbox" --bind-rw "$work" sh -c "touch /tmp/file '$work/started'; exec sleep 60" &
    first=$!
    check "the first private root starts" eventually test -e "$work/started"
    check "a second one sees nothing of it" "$sandbox" test ! -e /tmp/file
    check "the first still runs" kill -TERM "$first"
    wait "$first" 2>/dev/null
}

outside() {
    local stage=$1
    work=$(mktemp -d)
    mkdir "$work/bin"
    trap 'rm -rf "$work"' EXIT
    statuses_pass_through
    shows_directories_elsewhere
    refuses_without_namespaces "fails" 'exit 1'
    # shellcheck disable=SC2016 # expanded by the script that it becomes
    refuses_without_namespaces "makes none" 'while [[ $1 != env ]]; do shift; done; exec "$@"'
    leaves_nothing_after TERM 143
    leaves_nothing_after KILL 137
    two_run_at_once
    exec 9</dev/null
    OUTSIDE_VARIABLE=seen "$sandbox" --stage "$stage" --bind "$source_dir" -- \
        sh -c 'cd /proc/self/fd && echo * >/run/descriptors; exec "$@"' sh "$self" --inside || failures=$((failures + 1))
    finish
}

case ${1:-} in
    --inside) inside ;;
    ?*) outside "$1" ;;
    *) echo "Usage: $0 STAGE" >&2; exit 2 ;;
esac
