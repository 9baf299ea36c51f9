#!/bin/bash
# SPDX-License-Identifier: MIT
# vorta's generated manual page and bash completion, checked against the
# tool's own help. Usage: docs_cli.sh man|completion DIR VORTA [EMULATOR...]
# (DIR holds vorta.1 and vorta.bash-completion; the emulator words come first
# on the command line that runs vorta).
set -u
mode=$1
dir=$2
shift 2
vorta=("$@")
if [ "${#vorta[@]}" -gt 1 ]; then vorta=("${vorta[@]:1}" "${vorta[0]}"); fi

failures=0
fail() {
  echo "FAIL: $*" >&2
  failures=$((failures + 1))
}

# The commands 'vorta --help' lists, and the options 'vorta CMD --help' lists.
mapfile -t commands < <("${vorta[@]}" --help | awk '/^commands:/ { on = 1; next } on && /^  [a-z]/ { print $1 } on && /^$/ { on = 0 }')
[ "${#commands[@]}" -gt 5 ] || { echo "FAIL: 'vorta --help' lists only ${#commands[@]} commands" >&2; exit 1; }
options_of() { "${vorta[@]}" "$1" --help | awk '/^options:/ { on = 1; next } on && /^  --/ { print $1 }'; }

case "$mode" in
man)
  page=$dir/vorta.1
  [ -s "$page" ] || { echo "FAIL: no manual page at $page" >&2; exit 1; }
  # Renders without a single warning (-ww: all of them).
  warnings=$(groff -man -Tutf8 -ww -z "$page" 2>&1)
  [ -z "$warnings" ] || fail "groff warns: $warnings"
  if command -v man >/dev/null; then
    text=$(MANWIDTH=80 man -l "$page" 2>&1) || fail "man -l $page failed: $text"
    grep -q '^NAME' <<<"$text" || fail "the rendered page has no NAME section"
  fi
  # The sections a manual page has beside the commands.
  for section in NAME SYNOPSIS DESCRIPTION COMMANDS ENVIRONMENT FILES EXAMPLES "SEE ALSO"; do
    grep -qx "\.SH $section" "$page" || fail "no section $section"
  done
  section_of() { awk -v s="$1" '$0 == ".SH " s { on = 1; next } on && /^\.SH / { exit } on' "$page"; }
  for variable in VORTA_PARAMS VORTA_PREFIX COLUMNS; do
    grep -qF "\\fB$variable\\fR" <<<"$(section_of ENVIRONMENT)" || fail "ENVIRONMENT does not name $variable"
  done
  for file in params.json /dev/shm/PREFIX.clips /dev/shm/sem.PREFIX.clips.lock /var/run/NAME.pid; do
    grep -qF "$file" <<<"$(section_of FILES)" || fail "FILES does not name $file"
  done
  grep -q "vorta scan" <<<"$(section_of EXAMPLES)" || fail "EXAMPLES holds no scan"
  grep -q "shm_overview(7)" <<<"$(section_of "SEE ALSO")" || fail "SEE ALSO names no shm_overview(7)"
  # Every command has its section with every option.
  for command in "${commands[@]}"; do
    grep -qx "\.SS $command" "$page" || fail "no section for '$command'"
    section=$(awk -v c="$command" '$0 == ".SS " c { on = 1; next } on && /^\.SS / { exit } on' "$page")
    for option in $(options_of "$command"); do
      roffed=${option//-/\\-}
      grep -qF -- "\\fB$roffed\\fR" <<<"$section" || fail "'$command' section lacks $option"
    done
  done
  ;;
completion)
  script=$dir/vorta.bash-completion
  [ -s "$script" ] || { echo "FAIL: no completion script at $script" >&2; exit 1; }
  # shellcheck disable=SC1090
  source "$script" || fail "the completion script does not load"
  [[ $(complete -p vorta 2>/dev/null) == *"-F _vorta"* ]] || fail "'complete -p vorta' does not name _vorta"
  # complete_words WORD...: what completing the last word offers, one line.
  complete_words() {
    COMP_WORDS=("$@")
    COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
    COMP_LINE="$*"
    COMP_POINT=${#COMP_LINE}
    COMPREPLY=()
    _vorta vorta "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}"
    printf '%s\n' "${COMPREPLY[@]}" | sort | tr '\n' ' ' | sed 's/ $//'
  }
  expect() {
    local want=$1
    shift
    local got
    got=$(complete_words "$@")
    [ "$got" = "$want" ] || fail "completing '$*' offers '$got', not '$want'"
  }
  # Every command, and the words that may stand first.
  all=$(printf '%s\n' "${commands[@]}" --help --version --prefix --params | sort | tr '\n' ' ' | sed 's/ $//')
  expect "$all" vorta ""
  expect "cache" vorta cac
  expect "scan" vorta help sc
  expect "help" vorta help hel
  # The options common to the cache commands before the command, and the
  # prefixes of the caches that exist in /dev/shm.
  expect "cache" vorta --prefix test cac
  expect "create" vorta --params p.json --prefix test cache cr
  prefix="vorta-docs-completion-$$"
  : >"/dev/shm/$prefix.clips" || fail "cannot make /dev/shm/$prefix.clips"
  expect "$prefix" vorta --prefix "$prefix"
  expect "$prefix" vorta clips --prefix "$prefix"
  rm -f "/dev/shm/$prefix.clips"
  # Values: parameter names, formats, pixel formats, burn-in modes.
  expect "media-busy media-dir" vorta param get me
  expect "take" vorta param --params p.json set tak
  expect "" vorta param list ""
  expect "24 25 30 30df 50 60 60df" vorta tc --format ""
  expect "30 30df" vorta burn --format 3
  expect "argb rgb10 rgba v210 ycbcr8" vorta burn --pixel ""
  expect "counter dashes timecode userbits" vorta burn --mode ""
  # A command's options, and the words an option's value or the first argument is one of.
  expect "--clip-lock --clip-segment --clips" vorta cache --cl
  expect "clip playlist" vorta cache --lock ""
  expect "create flush hold info remove repair" vorta cache ""
  expect "create" vorta cache --prefix test cr
  expect "" vorta cache info ""
  expect "get list set" vorta param ""
  # Every option each command's help lists.
  for command in "${commands[@]}"; do
    offered=" $(complete_words vorta "$command" --) "
    for option in $(options_of "$command") --help; do
      [[ $offered == *" $option "* ]] || fail "completing 'vorta $command --' does not offer $option"
    done
  done
  ;;
*)
  echo "docs_cli.sh: unknown mode '$mode'" >&2
  exit 2
  ;;
esac

[ "$failures" -eq 0 ] || exit 1
echo "ok: ${#commands[@]} commands"
