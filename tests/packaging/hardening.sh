#!/bin/bash
# Looks at what every installed program and library has against exploits. Usage: hardening.sh STAGE [--fortified];
# with the option also at the checks that only an optimised build has.
set -uo pipefail

readonly needed=('Type: +DYN' ' GNU_RELRO ' 'FLAGS.*NOW' ' GNU_STACK .* RW ' ' UND __stack_chk_fail')
refused=('TEXTREL' 'R(UN)?PATH')
# Their checked forms are taken whenever the compiler fortifies.
[[ ${2:-} != --fortified ]] || refused+=(' UND v?(printf|fprintf|sprintf|snprintf|dprintf|asprintf|syslog)(@|$)')

seen=0 failures=0
fail() { echo "FAILED  $1: $2"; failures=$((failures + 1)); }
while read -r file; do
    text=$(readelf --wide --file-header --segments --dynamic --dyn-syms "$file" 2>/dev/null) || continue
    seen=$((seen + 1))
    for pattern in "${needed[@]}"; do grep -qE -- "$pattern" <<<"$text" || fail "$file" "no '$pattern'"; done
    for pattern in "${refused[@]}"; do ! grep -E -- "$pattern" <<<"$text" || fail "$file" "'$pattern'"; done
done < <(find "$1" -type f ! -name '*.a')
[[ $seen -ge 5 ]] || fail "$1" "three programs and two libraries are expected, there are $seen files"
exit $((failures > 0))
