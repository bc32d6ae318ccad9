#!/usr/bin/env bash
# Test code against product code: non-blank, non-comment lines of the C and
# C++ sources under tests/ against those outside tests/, fuzz/ and bench/.
# Comments are stripped by the compiler's own preprocessor (no macro or
# include expansion), so strings holding "//" or "/*" count correctly.
set -euo pipefail
cd "$(dirname "$0")/.."

count() {
  local n=0 f
  while IFS= read -r -d '' f; do
    local text
    text=$(g++ -x c++ -fpreprocessed -dD -E -P "$f" 2>/dev/null) || { echo "cannot read $f" >&2; exit 1; }
    n=$((n + $(grep -cv '^[[:space:]]*$' <<<"$text" || true)))
  done
  echo "$n"
}

sources() {
  git ls-files -z -- "$@" | grep -zE '\.(c|cc|cpp|cxx|h|hh|hpp)$' || true
}

tests=$(sources tests | count)
product=$(sources . ':!tests' ':!fuzz' ':!bench' | count)
awk -v t="$tests" -v p="$product" \
  'BEGIN { printf "tests %d / product %d = %.1f%%\n", t, p, 100 * t / p }'
