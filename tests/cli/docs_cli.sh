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
  all=$(printf '%s\n' "${commands[@]}" --help --version help | sort | tr '\n' ' ' | sed 's/ $//')
  expect "$all" vorta ""
  expect "cache" vorta cac
  expect "scan" vorta help sc
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
