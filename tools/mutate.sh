#!/usr/bin/env bash
# Mutation check: plants the single-line faults of tools/mutations.txt in the
# monitor's sources one at a time, rebuilds, runs the whole test suite, and
# counts the faults the suite catches ("killed") against those it misses.
#
#   tools/mutate.sh            every mutation
#   tools/mutate.sh REGEX      only mutations whose line in the list matches
#   tools/mutate.sh --check    only checks that each mutation still applies
#
# It works on a copy of the tree (default /tmp/zev-mutate, or $ZEV_MUTATE_DIR)
# kept between runs so that each mutant costs an incremental build; the
# working tree is never touched. Exit status: 0 when every mutation applied
# and built, 1 otherwise (the list needs mending), 2 on a broken baseline.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
list="$root/tools/mutations.txt"
work="${ZEV_MUTATE_DIR:-/tmp/zev-mutate}"
check_only=0
filter=""
case "${1:-}" in
  --check) check_only=1 ;;
  -h|--help) sed -n '2,13p' "$0"; exit 0 ;;
  *) filter="${1:-}" ;;
esac

# Mutations as "file<TAB>expression<TAB>description", comments and blanks out.
mapfile -t mutations < <(grep -v -E '^[[:space:]]*(#|$)' "$list" | { [ -n "$filter" ] && grep -E -- "$filter" || cat; })
[ ${#mutations[@]} -gt 0 ] || { echo "no mutation matches '$filter'"; exit 1; }

# Applies mutation $2 to the tree at $1; prints why it failed, if it did.
apply() {
  local tree="$1" file expr why
  IFS=$'\t' read -r file expr why <<<"$2"
  [ -f "$tree/$file" ] || { echo "no file $file"; return 1; }
  cp "$tree/$file" "$tree/$file.orig"
  sed -i -e "$expr" "$tree/$file"
  local changed
  changed=$(diff "$tree/$file.orig" "$tree/$file" | grep -c '^>' || true)
  if [ "$changed" -ne 1 ]; then
    mv "$tree/$file.orig" "$tree/$file"
    echo "changes $changed lines of $file"
    return 1
  fi
}

# Puts the original back with a new time stamp, so the next build recompiles it.
restore() {
  local tree="$1" file
  IFS=$'\t' read -r file _ <<<"$2"
  cat "$tree/$file.orig" >"$tree/$file"
  rm -f "$tree/$file.orig"
}

if [ "$check_only" -eq 1 ]; then
  tmp="$(mktemp -d)"
  trap 'rm -rf "$tmp"' EXIT
  (cd "$root" && git ls-files -co --exclude-standard -- io plugin record sysinfo backends gpudb overlay apps host/include | tar -cf - -T -) | tar -xf - -C "$tmp"
  bad=0
  for m in "${mutations[@]}"; do
    if why=$(apply "$tmp" "$m"); then restore "$tmp" "$m"; else echo "NOT APPLIED: $why: $m"; bad=1; fi
  done
  echo "${#mutations[@]} mutations checked"
  exit "$bad"
fi

# Mirror the tree into $work/src: changed files are copied with a new time
# stamp (so a mutant left by an interrupted run is rebuilt), removed ones go.
mkdir -p "$work/src"
(cd "$root" && git ls-files -co --exclude-standard -z) | python3 -c '
import filecmp, os, shutil, sys
root, dst = sys.argv[1], sys.argv[2]
wanted = [p for p in sys.stdin.buffer.read().decode().split("\0") if p]
keep = set(wanted)
for rel in wanted:
    s, d = os.path.join(root, rel), os.path.join(dst, rel)
    if os.path.islink(s):
        if not os.path.islink(d) or os.readlink(d) != os.readlink(s):
            if os.path.lexists(d): os.remove(d)
            os.makedirs(os.path.dirname(d), exist_ok=True)
            os.symlink(os.readlink(s), d)
    elif os.path.isfile(s):
        if os.path.islink(d) or not os.path.isfile(d) or not filecmp.cmp(s, d, shallow=False):
            if os.path.lexists(d): os.remove(d)
            os.makedirs(os.path.dirname(d), exist_ok=True)
            shutil.copyfile(s, d)
            os.chmod(d, os.stat(s).st_mode & 0o777)
for base, dirs, files in os.walk(dst):
    for name in files + [x for x in dirs if os.path.islink(os.path.join(base, x))]:
        p = os.path.join(base, name)
        if os.path.relpath(p, dst) not in keep: os.remove(p)
' "$root" "$work/src"

build="$work/build"
cmake -S "$work/src" -B "$build" -G Ninja -DZEV_BUILD_BENCHMARKS=OFF >/dev/null
run_suite() {
  cmake --build "$build" -j"$(nproc)" >"$work/build.log" 2>&1 || return 2
  ctest --test-dir "$build" -j"$(nproc)" --timeout 120 --stop-on-failure >"$work/test.log" 2>&1 || return 1
}

echo "baseline: building and testing the unmutated tree"
if ! run_suite; then
  echo "the unmutated tree does not build or pass: see $work/build.log, $work/test.log"
  exit 2
fi

killed=0
total=0
status=0
survivors=()
for m in "${mutations[@]}"; do
  IFS=$'\t' read -r file _ why <<<"$m"
  if ! err=$(apply "$work/src" "$m"); then
    echo "NOT APPLIED  $file: $why ($err)"
    status=1
    continue
  fi
  rc=0
  run_suite || rc=$?
  restore "$work/src" "$m"
  case "$rc" in
    0) total=$((total + 1)); survivors+=("$file: $why"); echo "survived     $file: $why" ;;
    1) total=$((total + 1)); killed=$((killed + 1)); echo "killed       $file: $why" ;;
    *) status=1; echo "NO BUILD     $file: $why: $(grep -m1 -E 'error' "$work/build.log")" ;;
  esac
done
# Leave the copy built from the clean tree.
cmake --build "$build" -j"$(nproc)" >"$work/build.log" 2>&1 || true

echo
[ ${#survivors[@]} -eq 0 ] || printf 'survivors:\n%s\n' "$(printf '  %s\n' "${survivors[@]}")"
echo "killed $killed/$total"
exit "$status"
