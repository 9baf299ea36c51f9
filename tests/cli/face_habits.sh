#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Habits: the top help names 'vorta help COMMAND'; -V, --version and version
# print the version; a typo of a command, an option or an action gets a
# "did you mean".
. "$(dirname "$0")/face/common.sh"

status "help" 0 p --help
expect "help names 'vorta help COMMAND'" "vorta help COMMAND" "$out"
expect "help names the version" "vorta version" "$out"
expect "help names the exit statuses" "0 success, 1 failure, 2 usage error" "$out"
for word in -V --version version; do
  status "$word" 0 p "$word"
  expect "$word" "^vorta [0-9]+\.[0-9]+\.[0-9]+$" "$out"
done
status "help scan" 0 p help scan
expect "help scan" "^usage: vorta scan " "$out"

status "a typo of a command" 2 p clps
expect "clps" "^vorta: unknown command 'clps' \(did you mean 'clips'\?\)$" "$(head -1 <<<"$err")"
status "two letters swapped" 2 p sacn
expect "sacn" "did you mean 'scan'" "$err"
status "a typo after help" 2 p help tc0
expect "help tc0" "did you mean 'tc'" "$err"
status "a typo of an option" 2 p tc 01:00:00:00 --jsno
expect "--jsno" "^vorta tc: unknown option '--jsno' \(did you mean '--json'\?\)$" "$(head -1 <<<"$err")"
status "a typo of an action" 2 p cache inof
expect "cache inof" "^vorta cache: unknown action 'inof' .*\(did you mean 'info'\?\)$" "$(head -1 <<<"$err")"
status "a typo of a param action" 2 p param lsit
expect "param lsit" "did you mean 'list'" "$err"
status "no near command" 2 p frobnicate
if grep -q "did you mean" <<<"$err"; then fail "a suggestion for frobnicate: $err"; fi
echo "face_habits: passed"
