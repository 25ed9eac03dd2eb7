#!/usr/bin/env bash
# Our release parser against parse-torrent-title (a widely used JavaScript
# parser of the same kind, for speed reference only) on the same 100,000 names.
#   bench/release-bench.sh        (after ./test or ./run has built the tree)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cmake --build "$root/build" --target bench_release >/dev/null
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
"$root/build/bench/bench_release" --names-out="$work/names.jsonl" --benchmark_format=json >"$work/cpp.json"
js="$root/bench/.js"
if [[ ! -d "$js/node_modules/parse-torrent-title" ]]; then
  mkdir -p "$js"
  (cd "$js" && npm install --silent --no-audit --no-fund parse-torrent-title@3 >/dev/null)
fi
node "$root/bench/ptt-bench.js" "$work/names.jsonl" "$js" >"$work/js.json"
node -e '
const cpp = require(process.argv[1]).benchmarks[0];
const js = require(process.argv[2]);
const ours = 1e6 / cpp.items_per_second;
console.log(`vantory ReleaseParser: ${Math.round(cpp.items_per_second)} names/s, ${ours.toFixed(2)} us/name`);
console.log(`parse-torrent-title:   ${Math.round(1e6 / js.us_per_name)} names/s, ${js.us_per_name.toFixed(2)} us/name`);
console.log(`throughput ratio (ours / theirs): ${(js.us_per_name / ours).toFixed(2)}`);
' "$work/cpp.json" "$work/js.json"
