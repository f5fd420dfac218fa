#!/bin/bash
# Looks with readelf at what every installed program and library has against exploits. Usage:
# hardening.sh STAGE [--fortified]; with the option also at the checks that only an optimised build can have.
# shellcheck disable=SC2317 # functions are called through check
set -uo pipefail

readonly required=(usr/sbin/kxcore usr/bin/kxctl usr/bin/kxregistry)
# Their checked forms are taken whenever the compiler fortifies, whatever it knows of the sizes.
readonly always_checked='v?(printf|fprintf|sprintf|snprintf|dprintf|asprintf|syslog)'

# shellcheck source=/dev/null
source "$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")/../support/checks.sh"

# has PATTERN READELF-OPTION... FILE: whether a line of readelf's output, all of which is read, matches
has() { readelf --wide "${@:2}" 2>/dev/null | grep -E -- "$1" >/dev/null; }

# imports PATTERN FILE: whether it takes such a function from a library
imports() { has " UND ($1)(@|$)" --dyn-syms "$2"; }

is_elf() { has 'Magic: +7f 45 4c 46' --file-header "$1"; }
is_executable() { has ' INTERP ' --segments "$1"; }

inspect() {
    local file=$1 name=${1#"$stage/"}
    check "$name is position-independent" has 'Type: +DYN' --file-header "$file"
    if is_executable "$file"; then
        check "$name says so to the loader" has 'FLAGS_1.*PIE' --dynamic "$file"
    fi
    check "$name has its tables made read-only" has ' GNU_RELRO ' --segments "$file"
    check "$name has them complete before it starts" has 'FLAGS.*NOW' --dynamic "$file"
    check "$name has no executable stack" has ' GNU_STACK .* RW ' --segments "$file"
    check "$name changes no code when it is loaded" not has 'TEXTREL' --dynamic "$file"
    check "$name looks for libraries only where they are installed" not has 'R(UN)?PATH' --dynamic "$file"
    check "$name watches its stack" imports '__stack_chk_fail' "$file"
    if [[ $fortified = --fortified ]]; then
        check "$name leaves no such call unchecked" not imports "$always_checked" "$file"
    fi
}

main() {
    local file files=()
    stage=$1 fortified=${2:-}
    mapfile -t files < <(find "$stage" -type f ! -name '*.a')
    for file in "${required[@]}"; do
        check "there is $file" is_elf "$stage/$file"
    done
    for file in "${files[@]}"; do
        ! is_elf "$file" || inspect "$file"
    done
    if [[ $fortified = --fortified ]]; then
        check "the daemon has its calls checked" imports '__[a-z]+_chk' "$stage/usr/sbin/kxcore"
    fi
    finish
}

[[ $# -ge 1 && -d $1 ]] || {
    echo "Usage: $0 STAGE [--fortified]" >&2
    exit 2
}
main "$@"
