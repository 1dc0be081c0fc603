#!/usr/bin/env bash
# SPDX-License-Identifier: BSD-3-Clause
# Writes COPC files from LAS files of point formats 6 to 8 (records kept as they are) and has
# npm's copc read them back (scripts/copc-check): the nodes' records must be the LAS file's.
# Skipped (exit 77) when node or the copc package is missing: `npm install --prefix build/copc
# copc@0.0.8` installs it.
#   run_copc_check.sh QUORVEL SOURCE_DIR WORK_DIR
set -euo pipefail
quorvel=$1 source=$2 work=$3
if ! command -v node >/dev/null || [ ! -d "$source/build/copc/node_modules/copc" ]; then
  echo "skipped: needs node and npm's copc 0.0.8 in $source/build/copc" \
       "(npm install --prefix build/copc copc@0.0.8)"
  exit 77
fi
mkdir -p "$work"
files=("$source/data/1_4_w_evlr.decoded.las" "$source/data/nebraska_wkt_geotiff.las")
# Larger files of several nodes, where the shared corpus is present.
for f in autzen_trim_7.las lidarhd_pf8_extrabytes.las; do
  [ -f "$source/../shared/data/real/$f" ] && files+=("$source/../shared/data/real/$f")
done
for f in "${files[@]}"; do
  out="$work/$(basename "$f" .las).copc.laz"
  "$quorvel" convert -q "$f" "$out"
  "$source/scripts/copc-check" "$out" "$f"
done
