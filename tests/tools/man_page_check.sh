#!/usr/bin/env bash
# Checks the man page against the program's own command definitions: every command the --help
# texts list has a subsection (.SS) naming it, and every option of a command appears in that
# subsection (the program's options anywhere in the page). A subsection naming a command the
# program lacks fails too. Every --help on the way must exit 0 with its usage line on stdout and
# nothing on stderr.
#   man_page_check.sh HTTPTOOLS PAGE
set -uo pipefail
cli=$1
page=$2

# The page as text: "\-" as "-", font changes dropped, one line per source line; sections are
# cut at .SS and .SH lines.
text=$(sed -e 's/\\-/-/g' -e 's/\\f[BIRP]//g' -e 's/\\(aq/'"'"'/g' "$page")
missing=()

# The options of a --help text: first token of the lines that start with a dash after two blanks
# (four in an option group).
options_of() { awk '/^  -|^    -/ { n = split($1, names, ","); for (i = 1; i <= n; i++) print names[i] }' <<<"$1"; }
# The subcommands of a --help text.
subcommands_of() { awk '/^Subcommands:/ { on = 1; next } /^[^ ]/ { on = 0 } on && /^  [a-z]/ { print $1 }' <<<"$1"; }
# The text of the subsection whose heading lists the command (headings: "get, head, put").
section_of() {
  awk -v cmd="$1" '
    /^\.S[SH]/ { on = 0 }
    /^\.SS/ {
      h = $0; sub(/^\.SS +/, "", h); gsub(/"/, "", h)
      n = split(h, names, / *, */)
      for (i = 1; i <= n; i++) if (names[i] == cmd) { on = 1; found = 1; next }
    }
    on { print }
    END { if (!found) exit 1 }' <<<"$text"
}
# Whether `name` occurs in `body` as a whole option name (not inside a longer one).
has_option() { grep -qE -- "(^|[^-A-Za-z0-9])$(sed 's/[.]/\\./g' <<<"$1")([^-A-Za-z0-9]|$)" <<<"$2"; }

commands=()
errors=$(mktemp)
trap 'rm -f "$errors"' EXIT
walk() {
  local help subs
  help=$("$cli" "$@" --help 2>"$errors")
  local rc=$?
  if [ $rc != 0 ] || [ -s "$errors" ] || ! grep -q "^Usage: httptools${*:+ $*}\( \|$\)" <<<"$help"; then
    echo "'httptools $* --help' exited $rc:"
    cat "$errors"
    echo "$help"
    exit 1
  fi
  subs=$(subcommands_of "$help")
  if [ -z "$subs" ]; then
    commands+=("$*")
    local body
    if ! body=$(section_of "$*"); then
      missing+=("command '$*' (no .SS subsection names it)")
      return
    fi
    for o in $(options_of "$help"); do
      [ "$o" = -h ] || [ "$o" = --help ] || has_option "$o" "$body" || missing+=("$o of '$*'")
    done
    return
  fi
  if [ $# = 0 ]; then
    for o in $(options_of "$help"); do
      has_option "$o" "$text" || missing+=("program option $o")
    done
  fi
  for s in $subs; do walk "$@" "$s"; done
}
walk

# Subsections for commands that do not exist.
while IFS= read -r heading; do
  IFS=',' read -ra names <<<"$heading"
  for n in "${names[@]}"; do
    n=$(sed 's/^ *//; s/ *$//' <<<"$n")
    # A here-string, not a pipe: grep -q leaving early would fail printf under pipefail.
    grep -qxF -- "$n" <<<"$(printf '%s\n' "${commands[@]}")" || missing+=("subsection '$n' names no command")
  done
done < <(sed -n 's/^\.SS *//p' "$page" | tr -d '"')

if [ ${#missing[@]} -gt 0 ]; then
  echo "$(basename "$page") is out of step with the program:"
  printf '  %s\n' "${missing[@]}"
  exit 1
fi
echo "$(basename "$page"): ${#commands[@]} commands, every option documented"
