#!/usr/bin/env bash
# SPDX-License-Identifier: BSD-3-Clause
# End to end: `quorvel transfer` of 1M classified points onto 1M points, LAS in and LAS out,
# against bench/transfer_yardstick.py doing the same job with numpy and scipy. Makes the two
# clouds once (LAS 1.4 format 6, ~0.4 m spacing, classes on the source, 0 on the target), runs
# both whole commands in turn (one warm-up each, then RUNS pairs) and prints the median wall time
# of each, the median of the pairwise time ratios (pairs keep the ratio honest when the machine's
# speed drifts), the peak memory of each against the input files' size, and whether the two
# outputs carry the same classes.
#
#   bench/transfer_e2e.sh [QUORVEL] [WORK_DIR]
#     QUORVEL   the host program (default build/release/cli/quorvel)
#     WORK_DIR  where the clouds and outputs go (default $TMPDIR/quorvel-transfer-e2e)
#   Environment: RUNS (pairs, default 5), POINTS (per cloud, default 1000000), PYTHON (a python3
#   with numpy and scipy; found by default), YARDSTICK_ARGS (e.g. --file-order for the untuned
#   script).
# Needs GNU time (/usr/bin/time) for peak memory, python3-numpy and python3-scipy.
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
root=$(dirname "$here")
quorvel=$(realpath "${1:-$root/build/release/cli/quorvel}")
work=${2:-${TMPDIR:-/tmp}/quorvel-transfer-e2e}
runs=${RUNS:-5}
points=${POINTS:-1000000}
yardstick=$here/transfer_yardstick.py

python=${PYTHON:-}
if [ -z "$python" ]; then
  for candidate in python3 /usr/bin/python3; do
    if "$candidate" -c 'import numpy, scipy' 2>/dev/null; then
      python=$candidate
      break
    fi
  done
fi
[ -n "$python" ] || { echo "needs a python3 with numpy and scipy (python3-scipy)" >&2; exit 2; }
[ -x /usr/bin/time ] || { echo "needs GNU time at /usr/bin/time (package time)" >&2; exit 2; }
[ -x "$quorvel" ] || { echo "no host program at $quorvel (build target quorvel_cli)" >&2; exit 2; }

mkdir -p "$work"
cd "$work"
if [ ! -f source.las ] || [ ! -f target.las ] || [ "$(cat points 2>/dev/null)" != "$points" ]; then
  echo "making two clouds of $points points in $work"
  "$python" "$yardstick" --make source.las target.las --points "$points"
  echo "$points" >points
fi

# The target as one fragment, as the yardstick sees it: the host's tiling option when it has one.
one_fragment=()
if "$quorvel" transfer --help 2>&1 | grep -q -- '--fragment-points'; then
  one_fragment=(--fragment-points 0)
fi
quorvel_command=("$quorvel" transfer source.las target.las -o quorvel.las --bands 1
  "${one_fragment[@]}")
read -r -a yardstick_args <<<"${YARDSTICK_ARGS:-}"
yardstick_command=("$python" "$yardstick" source.las target.las -o yardstick.las
  "${yardstick_args[@]}")

# Runs a command once; appends "wall_seconds peak_kilobytes" to the file named first.
measure() {
  local log=$1
  shift
  local start end
  start=$(date +%s%N)
  if ! /usr/bin/time -f '%M' -o peak.txt "$@" >run.out 2>&1; then
    echo "failed: $*" >&2
    cat run.out >&2
    exit 1
  fi
  end=$(date +%s%N)
  echo "$(( (end - start) / 1000 )) $(tail -n 1 peak.txt)" >>"$log"
}

rm -f quorvel.runs yardstick.runs
echo "host: ${quorvel_command[*]}"
echo "yardstick: ${yardstick_command[*]}"
measure /dev/null "${quorvel_command[@]}"
measure /dev/null "${yardstick_command[@]}"
for _ in $(seq "$runs"); do
  measure quorvel.runs "${quorvel_command[@]}"
  measure yardstick.runs "${yardstick_command[@]}"
done

input_bytes=$(( $(stat -c %s source.las) + $(stat -c %s target.las) ))
"$python" - "$input_bytes" <<'EOF'
import statistics
import sys

input_mb = int(sys.argv[1]) / 1e6
runs = {}
for name in ("quorvel", "yardstick"):
    with open(f"{name}.runs") as f:
        runs[name] = [(int(a) / 1e6, int(b) * 1024 / 1e6) for a, b in (line.split() for line in f)]
print(f"input files: {input_mb:.1f} MB")
for name, label in (("quorvel", "quorvel transfer"), ("yardstick", "numpy + scipy")):
    wall = [w for w, _ in runs[name]]
    peak = statistics.median(p for _, p in runs[name])
    print(f"{label:17s} wall median {statistics.median(wall):.3f} s (min {min(wall):.3f}, "
          f"max {max(wall):.3f}), peak memory {peak:.0f} MB = {peak / input_mb:.2f} x input")
ratios = [q[0] / y[0] for q, y in zip(runs["quorvel"], runs["yardstick"])]
print(f"time quorvel / yardstick: median {statistics.median(ratios):.3f} of {len(ratios)} pairs "
      f"(min {min(ratios):.3f}, max {max(ratios):.3f})")
peaks = statistics.median(q[1] / y[1] for q, y in zip(runs["quorvel"], runs["yardstick"]))
print(f"peak memory quorvel / yardstick: {peaks:.2f}")
EOF
"$python" "$yardstick" --compare quorvel.las yardstick.las
