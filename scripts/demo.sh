#!/usr/bin/env bash
# The main job, shown with the vorta tool.
set -euo pipefail
vorta=${1:-build/default/tools/vorta/vorta}
run() {
  echo
  echo "\$ vorta $*"
  "$vorta" "$@"
}
echo "vorta demo: what the library does so far"
run --help
run take A001_003.mov A001_C003.mov SHOT_TK12.mov TK7_B.mov Clip.mov ABC_.mov R_2
run cp437 --table "Scène 12 ─ π ≥ 3 ─ 5 €"
run cp437 --size 8 "Réglé ████"
