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
# The help of every command, help and version among them, both ways.
commands=$(p --help | awk '/^commands:/ { on = 1; next } on && /^  [a-z]/ { print $1 }')
for command in help version; do
  grep -qx "$command" <<<"$commands" || fail "'vorta --help' does not list $command"
done
for command in $commands; do
  status "help $command" 0 p help "$command"
  expect "help $command" "^usage: vorta $command( |$)" "$(head -1 <<<"$out")"
  help=$out
  status "$command --help" 0 p "$command" --help
  [ "$out" = "$help" ] || fail "'vorta $command --help' differs from 'vorta help $command'"
done
status "help help" 0 p help help
expect "help help" "^show the commands, or the options of one command$" "$out"
status "help version" 0 p help version
expect "help version" "^print the version of vorta$" "$out"

status "a typo of a command" 2 p clps
[ "$err" = "vorta: unknown command 'clps' (did you mean 'clips'?); see 'vorta --help'" ] || fail "clps: $err"
status "two letters swapped" 2 p sacn
expect "sacn" "did you mean 'scan'" "$err"
status "a typo after help" 2 p help tc0
expect "help tc0" "did you mean 'tc'" "$err"
status "a typo of an option" 2 p tc 01:00:00:00 --jsno
[ "$err" = "vorta tc: unknown option '--jsno' (did you mean '--json'?); see 'vorta tc --help'" ] || fail "--jsno: $err"
status "a typo of an action" 2 p cache inof
expect "cache inof" "^vorta cache: unknown action 'inof' .*\(did you mean 'info'\?\); see 'vorta cache --help'$" "$err"
status "a typo of a param action" 2 p param lsit
expect "param lsit" "did you mean 'list'" "$err"
status "no near command" 2 p frobnicate
if grep -q "did you mean" <<<"$err"; then fail "a suggestion for frobnicate: $err"; fi
echo "face_habits: passed"
