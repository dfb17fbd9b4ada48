#!/usr/bin/env bash
# Compares the symbols libsonorell.so exports with scripts/exported_symbols.txt, so that any
# change to the library's exported surface is a visible diff in review. Compared: everything in
# namespace sonorell (functions, vtables, typeinfo, thunks) and any symbol that is not C++, which
# would be a leak from a library linked in. Not compared: instantiations of the standard
# library's templates that the compiler exports beside ours; they follow inlining decisions.
# The kept list is that of a RelWithDebInfo build with g++.
#   scripts/check_exports.sh <libsonorell.so> [--update]     (--update rewrites the list)
set -euo pipefail
list=$(cd "$(dirname "$0")" && pwd)/exported_symbols.txt
lib=${1:?usage: $0 <path to libsonorell.so> [--update]}
[ -f "$lib" ] || { echo "check_exports: no such library: $lib" >&2; exit 2; }

exported() {
  # Mangled names nested in namespace sonorell: _ZN8sonorell..., _ZNK8sonorell... (const),
  # _ZTV/_ZTI/_ZTS (vtable, typeinfo, its name), _ZTh/_ZTv (thunks), _ZGV/_ZZ (local statics).
  nm -D --defined-only "$lib" | awk '{print $NF}' |
    grep -E '^_Z(T[VISC]|GV|Th-?[0-9]+_|Tv-?[0-9]+_-?[0-9]+_)?Z?N[KVRO]*8sonorell|^[^_]' |
    c++filt | LC_ALL=C sort -u
}

if [ "${2:-}" = --update ]; then
  exported >"$list"
  echo "check_exports: wrote $(wc -l <"$list") symbols to $list"
  exit 0
fi

actual=$(mktemp)
trap 'rm -f "$actual"' EXIT
exported >"$actual"
if ! diff -u --label "kept list ($list)" --label "exported by $lib" "$list" "$actual"; then
  cat >&2 <<EOF
check_exports: the exported symbols differ from the kept list ('+' exported but not listed,
'-' listed but no longer exported). If the change is meant, mark the declaration
SONORELL_EXPORT (or take the mark away) and run
  bash scripts/check_exports.sh $lib --update
then commit scripts/exported_symbols.txt with the change.
EOF
  exit 1
fi
echo "check_exports: $(wc -l <"$actual") exported symbols match the kept list"
