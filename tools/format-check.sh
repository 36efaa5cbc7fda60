#!/usr/bin/env bash
# Checks the hand-written C and C++ sources against .clang-format (Debian's
# clang-format): every *.cpp, *.h and *.c the repository holds except the
# generated database tables (gpudb/generated/).
#   tools/format-check.sh         names each file that differs; exit 1 if any
#   tools/format-check.sh --fix   formats those files in place
set -euo pipefail
cd "$(dirname "$0")/.."
command -v clang-format >/dev/null || { echo "clang-format not found (tools/install-deps.sh --test)" >&2; exit 2; }

if git rev-parse --is-inside-work-tree >/dev/null 2>&1; then
  mapfile -t files < <(git ls-files -- '*.cpp' '*.h' '*.c' ':!gpudb/generated/*')
else
  mapfile -t files < <(find . -path ./gpudb/generated -prune -o -path './build*' -prune -o \
    -type f \( -name '*.cpp' -o -name '*.h' -o -name '*.c' \) -print | sed 's|^\./||' | sort)
fi

if [ "${1:-}" = "--fix" ]; then
  clang-format -i "${files[@]}"
  exit 0
fi

bad=0
for f in "${files[@]}"; do
  if ! clang-format --dry-run -Werror "$f" >/dev/null 2>&1; then
    echo "not formatted: $f (tools/format-check.sh --fix)"
    bad=1
  fi
done
[ "$bad" -eq 0 ] && echo "format: ${#files[@]} files as .clang-format says ($(clang-format --version | head -1))"
exit "$bad"
