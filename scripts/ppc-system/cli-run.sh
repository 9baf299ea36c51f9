#!/bin/bash
# SPDX-License-Identifier: MIT
# Runs the vorta tool's command-line cases listed by cli-cases.py, one after
# the other: inside the PowerPC test guest (as /tests/cli-cases), or on any
# machine for a look at the list's verdicts.
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
# Environment: GTEST_FILTER (GoogleTest's syntax, matched against the case
# names), VORTA_CLI_TIMEOUT_SCALE (ctest's limits are for the host; default 4).
set -u
cases=${1:-/etc/vorta-cli/cases}
scale=${VORTA_CLI_TIMEOUT_SCALE:-4}
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
export BASH_ENV=$work/bash-env VORTA_CLI_MISSING=$work/missing
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
now_ms() { ms=$((${EPOCHREALTIME/./} / 1000)); }
# read_text NAME FILE: sets NAME to the file's text, trailing newlines kept.
read_text() {
  IFS= read -r -d '' "$1" <"$2" || true
}
show() { # show WHY: the verdict's details, as run_cli.cmake gives them
  echo "$1"
  echo "--- command: ${args[*]}"
  echo "--- exit status: $rc"
  echo "--- stdout:"
  cat "$work/out"
  echo "--- stderr:"
  cat "$work/err"
}

passed=0 ran=0
failures=() skips=() host=()
now_ms
started=$ms

run_case() {
  if ! selected "$name"; then return; fi
  if [ "$kind" = host ]; then
    host+=("$name: $reason")
    return
  fi
  ran=$((ran + 1))
  echo "[ RUN      ] $name"
  : >"$VORTA_CLI_MISSING"
  local limit=$((timeout * scale)) begin verdict="" took
  now_ms
  begin=$ms
  (cd "$dir" && exec timeout "$limit" "${args[@]}") </dev/null >"$work/out" 2>"$work/err"
  rc=$?
  now_ms
  took=$((ms - begin))
  if [ "$took" -ge $((limit * 1000)) ]; then
    verdict="timed out after $limit s"
  elif [ "$kind" = check ]; then
    local out err
    read_text out "$work/out"
    read_text err "$work/err"
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
    skips+=("$name")
    echo "[  SKIPPED ] $name ($took ms)"
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
      host+=("$name: ${joined%; }")
      ran=$((ran - 1))
      echo "[ HOST ONLY ] $name: ${joined%; } ($took ms)"
      return
    fi
  fi
  if [ -n "$verdict" ]; then
    show "$name: $verdict"
    failures+=("$name")
    echo "[  FAILED  ] $name ($took ms)"
  else
    passed=$((passed + 1))
    echo "[       OK ] $name ($took ms)"
  fi
}

reset() {
  name="" kind="" timeout=1500 dir=/ status="" stdout_re="" stderr_re="" skip="" will_fail="" reason=""
  args=()
}
reset
while IFS= read -r line || [ -n "$line" ]; do
  if [ -z "$line" ]; then
    [ -n "$name" ] && run_case
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
    *) echo "cli-run: $cases: unknown key '$key'" >&2 && exit 1 ;;
  esac
done <"$cases"
[ -n "$name" ] && run_case

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
