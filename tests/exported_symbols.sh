#!/usr/bin/env bash
# Fails when the shared library exports a name that is not public API: anything declared in a
# src/**/*_p.h header (classes, structs, namespace-level functions, *_impl namespaces) and the
# test hooks.
#   tests/exported_symbols.sh LIBRARY SOURCE_DIR
set -euo pipefail
lib=$1
src=$2
symbols=$(nm -D --defined-only "$lib" | awk '{print $3}' | c++filt)
[ -n "$symbols" ] || { echo "no dynamic symbols in $lib"; exit 1; }

mapfile -t headers < <(find "$src/src" -name '*_p.h' | sort)
names=$(
  for h in "${headers[@]}"; do
    # class X / struct X / class HTTPTOOLS_HIDDEN Outer::X (the last name counts)
    grep -oP '^\s*(class|struct)\s+(HTTPTOOLS_HIDDEN\s+)?\K[A-Za-z_][A-Za-z0-9_:]*(?=\s*[{:;])' "$h" | sed 's/.*:://'
    # functions declared at namespace level (not indented): the name before the parameter list
    grep -oP '^[A-Za-z][^(;=]*\b\K[A-Za-z_][A-Za-z0-9_]*(?=\()' "$h" | grep -v '^operator'
  done | sort -u
)
# A name that public headers declare too (a forward declaration, a nested type) is public.
public=$(find "$src/src" -name '*.h' ! -name '*_p.h' -exec grep -ohP '^\s*(class|struct)\s+(HTTPTOOLS_API\s+)?\K[A-Za-z_][A-Za-z0-9_]*' {} + | sort -u)
names=$(comm -23 <(echo "$names") <(echo "$public"))
fail=0
check() { # pattern, what
  local hits
  hits=$(grep -E "$1" <<<"$symbols" || true)
  if [ -n "$hits" ]; then
    echo "exported but internal ($2):"
    sed 's/^/  /' <<<"$hits" | head -5
    fail=1
  fi
}
for n in $names; do
  check "(^|::|[ <(,])$n(::|\(|$)" "declared in a _p.h header"
done
check '(^|[^_A-Za-z0-9])[A-Za-z][A-Za-z0-9_]*_impl::' "an *_impl namespace" # the standard library's __*_impl are not ours
check '(Hook|ForTest)\b' "a test hook"
count=$(wc -l <<<"$symbols")
if [ $fail = 0 ]; then
  echo "$count exported symbols, none internal ($(wc -w <<<"$names") internal names checked)"
fi
exit $fail
