#!/usr/bin/env bash
# tuning.sh [BUILD_DIR]: tunes the shipped model and three networks, and shows the default rule beside
# the table that came out, layer by layer, in turns of one run.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/release}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

"$build/benchmarks/tuning_nets" "$work"
cp assets/models/portrait_segmentation.zqnet "$work"
for model in "$work"/*.zqnet; do
    name=$(basename "$model" .zqnet)
    printf '\n== %s\n' "$name"
    "$build/tarno" tune --model "$model" --output "$work/$name.h" | grep -E '^(whole net|outputs|rejected|the |no operator)'
    "$build/tarno" bench --model "$model" --table "$work/$name.h" --compare-tables --runs 40
done
