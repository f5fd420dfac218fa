#!/bin/bash
# scripts/run refuses a command line that makes no sense at once, in one line that names the argument.
set -euo pipefail

run=$1/scripts/run
readonly run

# refuses ARGUMENT...: the message must name the first one
refuses() {
    local status=0 text
    # Should it be accepted after all, there is no such build.
    text=$("$run" "$@" --preset none 2>&1) || status=$?
    if [[ $status -ne 2 || $text != "run: "*"$1"* || $text = *$'\n'* ]]; then
        echo "usage: status $status of '$*': $text" >&2
        exit 1
    fi
}

refuses --bogus
refuses --size 3
refuses --size ''
refuses --screenshot /tmp
refuses --app /none
refuses --app / --once
"$run" --help | grep -q '^Usage: scripts/run '
