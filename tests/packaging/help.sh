#!/bin/bash
# Each script prints its usage, also where nothing of a developer's is set.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/../.."
for script in scripts/*; do
    [[ ! -d $script ]] || continue
    usage=$(env -i PATH=/usr/bin:/bin timeout 10 "$script" --help) || { echo "$script --help fails"; exit 1; }
    [[ $usage = "Usage: $script"* ]] || { echo "$script --help prints: $usage"; exit 1; }
done
