#!/bin/bash
# SPDX-License-Identifier: MIT
# vorta CLI: shared string and daemon demo, with the long-running commands in
# the background. Usage: process_cli.sh shm|daemon VORTA [EMULATOR...]
# (the emulator words come first on the command line that runs vorta).
# Exit status 77: skipped (no write access to /var/run for the daemon case).
set -u
mode=$1
shift
vorta=("$@")
# With an emulator the tool is the first word given; run as EMULATOR... VORTA.
if [ "${#vorta[@]}" -gt 1 ]; then vorta=("${vorta[@]:1}" "${vorta[0]}"); fi

work=$(mktemp -d)
background=""
cleanup() {
  [ -n "$background" ] && kill -KILL "$background" 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT

fail() {
  echo "FAIL: $*" >&2
  for f in "$work"/*; do [ -f "$f" ] && { echo "--- $f" >&2; cat "$f" >&2; }; done
  exit 1
}

# wait_for CONDITION...: up to 30 s
wait_for() {
  for _ in $(seq 1 300); do
    "$@" && return 0
    sleep 0.1
  done
  return 1
}

expect() { # expect WHAT ACTUAL EXPECTED
  [ "$2" == "$3" ] || fail "$1: got '$2', expected '$3'"
}

unique="vorta-cli-$$-$RANDOM"

if [ "$mode" == shm ]; then
  name="/$unique"
  "${vorta[@]}" shm create "$name" 8 --text hello >"$work/create.out" 2>"$work/create.err" &
  background=$!
  wait_for grep -q '^waiting for SIGINT or SIGTERM' "$work/create.out" || fail "owner did not start"
  grep -q '^holding '"$name"': capacity 8 bytes, owner pid [0-9]*$' "$work/create.out" || fail "owner line"
  grep -q '^text: "hello"$' "$work/create.out" || fail "owner text line"
  # Only the owner's own thread may take its stop signals: any other thread
  # of the tool (the one that filters standard error) blocks them, so that a
  # SIGTERM is always the owner's to handle. (Not under an emulator, whose
  # threads are its own.)
  if [ "${#vorta[@]}" -eq 1 ] && [ -d "/proc/$background/task" ]; then
    for task in /proc/"$background"/task/*; do
      [ "${task##*/}" = "$background" ] && continue
      blocked=$(awk '/^SigBlk:/ { print $2 }' "$task/status")
      (( (0x$blocked >> 14) & 1 && (0x$blocked >> 1) & 1 )) || fail "thread ${task##*/} takes SIGTERM or SIGINT: $blocked"
    done
  fi
  expect "get" "$("${vorta[@]}" shm get "$name")" "hello"
  # A second owner is refused while the first runs, and the text stays.
  timeout 60 "${vorta[@]}" shm create "$name" 4 --text other >"$work/second.out" 2>"$work/second.err"
  expect "second create exit status" "$?" 1
  expect "second create message" "$(cat "$work/second.err")" \
    "vorta shm: $name is owned by a running process; not taken over"
  expect "second create output" "$(cat "$work/second.out")" ""
  expect "get after the refused create" "$("${vorta[@]}" shm get "$name")" "hello"
  expect "set" "$("${vorta[@]}" shm set "$name" abcdefghij)" \
    "stored 7 of 10 characters in $name (capacity 8): cut to capacity - 1"
  expect "get after set" "$("${vorta[@]}" shm get "$name")" "abcdefg"
  json=$("${vorta[@]}" shm get "$name" --size 4 --json)
  echo "$json" | tr -d ' \t\n' | grep -q '"text":"abc","result":4,"capacity":8' || fail "get --size 4 --json: $json"
  kill -TERM "$background"
  wait "$background"
  rc=$?
  background=""
  expect "owner exit status" "$rc" 0
  grep -q '^signal 15: removed '"$name"', last text "abcdefg"$' "$work/create.out" || fail "owner stop line"
  "${vorta[@]}" shm get "$name" >"$work/gone.out" 2>"$work/gone.err"
  expect "get after the owner stopped" "$?" 1
  grep -q "^vorta shm: no shared string $name" "$work/gone.err" || fail "message after the owner stopped"
  # A killed owner leaves its name behind; a new owner takes it over.
  "${vorta[@]}" shm create "$name" 8 --text first >"$work/killed.out" 2>&1 &
  background=$!
  wait_for grep -q '^waiting for SIGINT' "$work/killed.out" || fail "owner to kill did not start"
  kill -KILL "$background"
  wait "$background"
  "${vorta[@]}" shm create "$name" 16 --text second >"$work/after.out" 2>"$work/after.err" &
  background=$!
  wait_for grep -q '^waiting for SIGINT' "$work/after.out" || fail "create after a killed owner"
  expect "get from the new owner" "$("${vorta[@]}" shm get "$name")" "second"
  kill -TERM "$background"
  wait "$background"
  expect "new owner exit status" "$?" 0
  background=""
  exit 0
fi

if [ "$mode" == daemon ]; then
  [ -w /var/run ] || { echo "skipped: needs write access to /var/run (run as root)"; exit 77; }
  pidfile="/var/run/$unique.pid"
  "${vorta[@]}" daemon-demo --name "$unique" >"$work/fg.out" 2>"$work/fg.err" &
  background=$!
  wait_for test -s "$pidfile" || fail "no pid file $pidfile"
  expect "pid file" "$(cat "$pidfile")" "$background"
  wait_for grep -q '^stop it with' "$work/fg.out" || fail "no stop hint"
  kill -USR1 "$background"
  kill -TERM "$background"
  wait "$background"
  rc=$?
  pid=$background
  background=""
  expect "foreground exit status" "$rc" 0
  [ -e "$pidfile" ] && fail "pid file left behind"
  grep -q "^stopped by signal 15; pid file removed$" "$work/fg.out" || fail "foreground stop line"
  expect "message" "$(cat "$work/fg.err")" "$unique:  Received SIGNAL 15, shutting down (PID:$pid)"

  "${vorta[@]}" daemon-demo --detach --name "$unique" >"$work/bg.out" 2>"$work/bg.err"
  expect "detach exit status" "$?" 0
  grep -q "^stop it with: kill -TERM \$(cat $pidfile)$" "$work/bg.out" || fail "detach hint"
  wait_for test -s "$pidfile" || fail "no pid file from the detached daemon"
  pid=$(cat "$pidfile")
  kill -0 "$pid" || fail "detached daemon $pid not running"
  kill -TERM "$pid"
  wait_for test ! -e "$pidfile" || fail "detached daemon left its pid file"
  exit 0
fi

echo "unknown mode $mode" >&2
exit 2
