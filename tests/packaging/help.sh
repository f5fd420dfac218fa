#!/bin/bash
# Each script, in a tree of nothing but the repository's files, prints its usage and leaves nothing behind.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/../.."
clone=$(mktemp -d)
trap 'rm -rf "$clone"' EXIT
git ls-files -z | xargs -0 cp --parents --no-dereference --target-directory "$clone"
cd "$clone"
find . >"$clone.before"
for script in scripts/*; do
    [[ -f $script ]] || continue
    usage=$(env -i PATH=/usr/bin:/bin timeout 10 "$script" --help) || { echo "$script --help fails"; exit 1; }
    [[ $usage = "Usage: $script"* ]] || { echo "$script --help prints: $usage"; exit 1; }
done
find . | diff "$clone.before" -
rm "$clone.before"
