#!/usr/bin/env bash
# Checks the man page against the program's own command definitions: every command the --help
# texts list has a subsection (.SS) naming it, and every option of a command appears in that
# subsection (the program's options anywhere in the page). A subsection naming a command the
# program lacks fails too. Every --help on the way must exit 0 with its usage line on stdout and
# nothing on stderr.
#   man_page_check.sh HTTPTOOLS PAGE
set -uo pipefail
cli=$1 page=$2
# The page as text: "\-" as "-", font changes dropped, one line per source line.
text=$(sed -e 's/\\-/-/g' -e 's/\\f[BIRP]//g' -e 's/\\(aq/'"'"'/g' "$page")
# The subsection headings, one command name a line (headings: "get, head, put").
headings=$(sed -n 's/^\.SS *//p' "$page" | tr -d '"' | sed 's/ *, */\n/g; s/^ *//; s/ *$//')
unused=$headings missing=() count=0
errors=$(mktemp)
trap 'rm -f "$errors"' EXIT

# The options of a --help text: first token of the lines that start with a dash after two blanks
# (four in an option group).
options_of() { awk '/^  -|^    -/ { n = split($1, names, ","); for (i = 1; i <= n; i++) print names[i] }' <<<"$1"; }
# The text of the subsection whose heading lists the command, up to the next .SS or .SH.
section_of() {
  awk -v cmd="$1" '/^\.S[SH]/ { on = 0 } /^\.SS/ { h = $0; sub(/^\.SS +/, "", h); gsub(/"/, "", h)
    n = split(h, names, / *, */); for (i = 1; i <= n; i++) if (names[i] == cmd) { on = 1; next } } on' <<<"$text"
}
# Whether `name` occurs in `body` as a whole option name (not inside a longer one).
has_option() { grep -qE -- "(^|[^-A-Za-z0-9])$(sed 's/[.]/\\./g' <<<"$1")([^-A-Za-z0-9]|$)" <<<"$2"; }

walk() {
  local help subs body o
  help=$("$cli" "$@" --help 2>"$errors")
  if [ $? != 0 ] || [ -s "$errors" ] || ! grep -q "^Usage: httptools${*:+ $*}\( \|$\)" <<<"$help"; then
    printf "'httptools %s --help' failed:\n%s\n%s\n" "$*" "$(cat "$errors")" "$help"
    exit 1
  fi
  subs=$(awk '/^Subcommands:/ { on = 1; next } /^[^ ]/ { on = 0 } on && /^  [a-z]/ { print $1 }' <<<"$help")
  if [ -n "$subs" ]; then
    # The program's own options may be documented anywhere.
    [ $# != 0 ] || for o in $(options_of "$help"); do has_option "$o" "$text" || missing+=("program option $o"); done
    for s in $subs; do walk "$@" "$s"; done
    return
  fi
  count=$((count + 1))
  grep -qxF -- "$*" <<<"$headings" || { missing+=("command '$*' (no .SS subsection names it)"); return; }
  unused=$(grep -vxF -- "$*" <<<"$unused")
  body=$(section_of "$*")
  for o in $(options_of "$help"); do
    [[ $o == -h || $o == --help ]] || has_option "$o" "$body" || missing+=("$o of '$*'")
  done
}
walk
while IFS= read -r n; do [ -z "$n" ] || missing+=("subsection '$n' names no command"); done <<<"$unused"

if [ ${#missing[@]} -gt 0 ]; then
  echo "$(basename "$page") is out of step with the program:"
  printf '  %s\n' "${missing[@]}"
  exit 1
fi
echo "$(basename "$page"): $count commands, every option documented"
