# shellcheck shell=bash
# For test scripts: they make their checks, then finish.
failures=0

# check TEXT COMMAND...: counts a failure unless the command succeeds
check() {
    local text=$1 output
    shift
    if output=$("$@" 2>&1); then
        echo "ok      $text"
    else
        echo "FAILED  $text: $* $output"
        failures=$((failures + 1))
    fi
}

# check_equal TEXT EXPECTED ACTUAL
check_equal() {
    check "$1" test "$2" = "$3"
}

not() { ! "$@"; }

# finish: exits with what came of all checks
finish() { exit $((failures > 0)); }
