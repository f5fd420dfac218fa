# shellcheck shell=bash
# For test scripts: they make their checks, then finish.
failures=0

# check TEXT COMMAND...: counts a failure, and returns it, unless the command succeeds
check() {
    local text=$1 output
    shift
    if output=$("$@" 2>&1); then
        echo "ok      $text"
    else
        echo "FAILED  $text: $* $output"
        failures=$((failures + 1))
        return 1
    fi
}

# check_equal TEXT EXPECTED ACTUAL
check_equal() { check "$1" test "$2" = "$3"; }

not() { ! "$@"; }

# status_of COMMAND...: prints how it ended, and nothing else; for $(...), where errexit is off
status_of() { "$@" >/dev/null 2>&1; echo "$?"; }

# eventually COMMAND...: waits until the command succeeds, ten seconds at most on a machine of the usual speed
eventually() {
    local tries=$((100 * ${KX_TIME_FACTOR:-1}))
    until "$@" >/dev/null 2>&1; do
        ((tries-- > 0)) || return 1
        sleep 0.1
    done
}

# finish: exits with what came of all checks
finish() { exit $((failures > 0)); }
