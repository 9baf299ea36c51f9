#!/bin/bash
# SPDX-License-Identifier: MIT
# Runs the vorta tool's command-line cases listed by cli-cases.py: inside the
# PowerPC test guest (as /tests/cli-cases), or on any machine for a look at
# the list's verdicts.
#
#   cli-run.sh [CASES_FILE]        default: /etc/vorta-cli/cases
#
# Reports like a GoogleTest binary ("[ RUN      ]", "[       OK ]",
# "[  FAILED  ]" and the summary lines) so that the guest's init counts it
# the same way, plus "[ HOST ONLY ]" lines: the cases that stay with their
# host runs, each with its reason. Exit status 1 when a case failed.
#
# A case run through bash that calls a program the machine has not is noted
# by a command_not_found_handle (through BASH_ENV). When it then fails and
# every such program is one the guest cannot have (python3 for the JSON
# schemas, groff for the manual page, script for a terminal, cmake), the case
# counts as host only with that reason; any other missing program is a
# failure.
#
# The cases run as many at a time as there are processors (as ctest -j runs
# them on the host), each case's report printed whole when it ends.
#
# Environment: GTEST_FILTER (GoogleTest's syntax, matched against the case
# names), VORTA_CLI_TIMEOUT_SCALE (ctest's limits are for the host; default 4),
# VORTA_CLI_JOBS (cases at a time; default: the processors online).
set -u
cases_file=${1:-/etc/vorta-cli/cases}
scale=${VORTA_CLI_TIMEOUT_SCALE:-4}
jobs=${VORTA_CLI_JOBS:-$(nproc 2>/dev/null || echo 1)}
filter=${GTEST_FILTER:-*}
declare -A absent=(
  [python3]="needs python3, which the guest has not"
  [groff]="needs groff, which the guest has not"
  [man]="needs man, which the guest has not"
  [script]="needs a terminal, which the guest has not"
  [cmake]="needs cmake, which the guest has not"
)

work=$(mktemp -d "${TMPDIR:-/tmp}/vorta-cli-run.XXXXXX") || exit 1
trap 'rm -rf "$work"' EXIT
export BASH_ENV=$work/bash-env
cat >"$BASH_ENV" <<'EOF'
command_not_found_handle() {
  printf '%s\n' "$1" >>"$VORTA_CLI_MISSING"
  printf '%s: command not found\n' "$1" >&2
  return 127
}
EOF

# GoogleTest's filter: POSITIVE[-NEGATIVE], each a ':'-separated list of globs.
positive=${filter%%-*}
negative=
[[ $filter == *-* ]] && negative=${filter#*-}
[ -n "$positive" ] || positive='*'
any_of() { # any_of NAME GLOBS
  local globs glob
  IFS=: read -ra globs <<<"$2"
  for glob in "${globs[@]}"; do
    # shellcheck disable=SC2053
    [[ $1 == $glob ]] && return 0
  done
  return 1
}
selected() { any_of "$1" "$positive" && { [ -z "$negative" ] || ! any_of "$1" "$negative"; }; }

# Milliseconds, in MS, without a subshell: every fork costs under emulation.
now_ms() { ms=$((10#${EPOCHREALTIME/./} / 1000)); }
# read_text NAME FILE: sets NAME to the file's text, trailing newlines kept.
read_text() {
  IFS= read -r -d '' "$1" <"$2" || true
}

# run_case DIR: runs the case just read, in the background, with its
# outputs in DIR; leaves there its report (the lines to print) and its
# verdict, one line: "pass", "fail", "skip" or "host REASON".
run_case() {
  local d=$1 limit=$((timeout * scale)) begin took rc verdict=""
  export VORTA_CLI_MISSING=$d/missing
  : >"$VORTA_CLI_MISSING"
  exec >"$d/report"
  echo "[ RUN      ] $name"
  now_ms
  begin=$ms
  (cd "$dir" && exec timeout -k 10 "$limit" "${args[@]}") </dev/null >"$d/out" 2>"$d/err"
  rc=$?
  now_ms
  took=$((ms - begin))
  if [ "$took" -ge $((limit * 1000)) ]; then
    verdict="timed out after $limit s"
  elif [ "$kind" = check ]; then
    local out err
    read_text out "$d/out"
    read_text err "$d/err"
    if [ "$rc" != "$status" ]; then
      verdict="expected exit status $status"
    elif [ -n "$stdout_re" ] && ! [[ $out =~ $stdout_re ]]; then
      verdict="stdout does not match '$stdout_re'"
    elif [ -n "$stderr_re" ] && ! [[ $err =~ $stderr_re ]]; then
      verdict="stderr does not match '$stderr_re'"
    elif [ -z "$stderr_re" ] && [ "$status" = 0 ] && [ -n "$err" ]; then
      verdict="unexpected output on stderr"
    fi
  elif [ -n "$skip" ] && [ "$rc" = "$skip" ]; then
    echo "[  SKIPPED ] $name ($took ms)"
    echo skip >"$d/verdict"
    return
  elif [ -n "$will_fail" ]; then
    [ "$rc" -ne 0 ] || verdict="expected to fail, but exited 0"
  elif [ "$rc" -ne 0 ]; then
    verdict="exit status $rc"
    local tool missing=() why=() known=1
    mapfile -t missing < <(sort -u "$VORTA_CLI_MISSING")
    for tool in "${missing[@]}"; do
      if [ -n "${absent[$tool]:-}" ]; then
        why+=("${absent[$tool]}")
      else
        known=0
        verdict+="; needs $tool, which the guest has not: add it to the guest or let the case do without"
      fi
    done
    if [ ${#missing[@]} -gt 0 ] && [ "$known" -eq 1 ]; then
      local joined
      joined=$(printf '%s; ' "${why[@]}")
      echo "[ HOST ONLY ] $name: ${joined%; } ($took ms)"
      echo "host ${joined%; }" >"$d/verdict"
      return
    fi
  fi
  if [ -n "$verdict" ]; then
    # The details, as run_cli.cmake gives them.
    echo "$name: $verdict"
    echo "--- command: ${args[*]}"
    echo "--- exit status: $rc"
    echo "--- stdout:"
    cat "$d/out"
    echo "--- stderr:"
    cat "$d/err"
    echo "[  FAILED  ] $name ($took ms)"
    echo fail >"$d/verdict"
  else
    echo "[       OK ] $name ($took ms)"
    echo pass >"$d/verdict"
  fi
}

passed=0 ran=0 cases=0
failures=() skips=() host=()
declare -A running=() # pid -> the case's directory
now_ms
started=$ms

# Prints a finished case's report and counts its verdict.
collect() {
  local d=$1 name verdict reason=""
  name=$(<"$d/name")
  read -r verdict reason <"$d/verdict" || verdict="fail"
  cat "$d/report"
  case "$verdict" in
    pass) passed=$((passed + 1)) ran=$((ran + 1)) ;;
    skip) skips+=("$name") ran=$((ran + 1)) ;;
    host) host+=("$name: $reason") ;;
    *) failures+=("$name") ran=$((ran + 1)) ;;
  esac
  rm -rf "$d"
}
finish_one() {
  local pid
  wait -n -p pid
  collect "${running[$pid]}"
  unset "running[$pid]"
}
start_case() {
  if ! selected "$name"; then return; fi
  if [ "$kind" = host ]; then
    host+=("$name: $reason")
    return
  fi
  while [ ${#running[@]} -ge "$jobs" ]; do finish_one; done
  cases=$((cases + 1))
  local d=$work/$cases
  mkdir "$d"
  printf '%s' "$name" >"$d/name"
  run_case "$d" &
  running[$!]=$d
}

reset() {
  name="" kind="" timeout=1500 dir=/ status="" stdout_re="" stderr_re="" skip="" will_fail="" reason=""
  args=()
}
reset
while IFS= read -r line || [ -n "$line" ]; do
  if [ -z "$line" ]; then
    [ -n "$name" ] && start_case
    reset
    continue
  fi
  key=${line%% *}
  value=""
  [ "$key" != "$line" ] && value=${line#* }
  printf -v value '%b' "$value"
  case "$key" in
    case) name=$value ;;
    kind) kind=$value ;;
    timeout) timeout=$value ;;
    dir) dir=$value ;;
    status) status=$value ;;
    stdout) stdout_re=$value ;;
    stderr) stderr_re=$value ;;
    skip) skip=$value ;;
    will_fail) will_fail=$value ;;
    reason) reason=$value ;;
    arg) args+=("$value") ;;
    *) echo "cli-run: $cases_file: unknown key '$key'" >&2 && exit 1 ;;
  esac
done <"$cases_file"
[ -n "$name" ] && start_case
while [ ${#running[@]} -gt 0 ]; do finish_one; done

plural() { [ "$1" -eq 1 ] && echo "$1 $2" || echo "$1 ${2}s"; }
echo
now_ms
echo "[==========] $(plural "$ran" test) from the tool's command-line cases ran. ($((ms - started)) ms total)"
echo "[  PASSED  ] $(plural "$passed" test)."
if [ ${#skips[@]} -gt 0 ]; then
  echo "[  SKIPPED ] $(plural ${#skips[@]} test), listed below:"
  printf '[  SKIPPED ] %s\n' "${skips[@]}"
fi
if [ ${#failures[@]} -gt 0 ]; then
  echo "[  FAILED  ] $(plural ${#failures[@]} test), listed below:"
  printf '[  FAILED  ] %s\n' "${failures[@]}"
fi
echo "[ HOST ONLY ] $(plural ${#host[@]} case), listed below:"
[ ${#host[@]} -eq 0 ] || printf '[ HOST ONLY ] %s\n' "${host[@]}"
[ ${#failures[@]} -eq 0 ]
