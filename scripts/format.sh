#!/usr/bin/env bash
# Checks or applies the C and C++ style of .clang-format (and the nested
# tools/pkeyctl/.clang-format) on the project's own sources: every .c, .cc,
# .cpp, .h and .hpp under the source directories. Build directories and test
# vector data are not looked at.
#
#   scripts/format.sh --check   lists the files clang-format would change and
#                               exits non-zero when there is any
#   scripts/format.sh --fix     rewrites those files in place
#
# The layout clang-format chooses differs between its major versions; the
# style is tuned for clang-format 14 (Debian's clang-format package on
# bookworm). CLANG_FORMAT names another binary.
set -euo pipefail
cd "$(dirname "$0")/.."

usage() {
  echo "usage: $0 --check | --fix" >&2
  exit 2
}
[ $# -eq 1 ] || usage
mode=$1
case "$mode" in --check | --fix) ;; *) usage ;; esac

if [ -z "${CLANG_FORMAT:-}" ]; then
  if command -v clang-format-14 >/dev/null 2>&1; then
    CLANG_FORMAT=clang-format-14
  else
    CLANG_FORMAT=clang-format
  fi
fi
if ! command -v "$CLANG_FORMAT" >/dev/null 2>&1; then
  echo "format: $CLANG_FORMAT not found (scripts/deps.sh installs clang-format)" >&2
  exit 2
fi
version=$("$CLANG_FORMAT" --version | sed -n 's/.*clang-format version \([0-9]*\).*/\1/p')
if [ "$version" != 14 ]; then
  echo "format: warning: $CLANG_FORMAT is version ${version:-unknown}; the style is tuned for 14" >&2
fi

dirs=(include pubkey ec fs local peer cfgmng backup util platform tools examples tests fuzz bench)
files=()
while IFS= read -r -d '' f; do
  files+=("$f")
done < <(find "${dirs[@]}" -path tests/vectors -prune -o -type f \
           \( -name '*.c' -o -name '*.cc' -o -name '*.cpp' -o -name '*.h' -o -name '*.hpp' \) \
           -print0 | sort -z)
[ ${#files[@]} -gt 0 ] || { echo "format: no sources found" >&2; exit 2; }
# A style file clang-format cannot read would make every file look different.
for f in "${files[@]}"; do
  "$CLANG_FORMAT" --dump-config --style=file "$f" >/dev/null || exit 2
done

if [ "$mode" = --fix ]; then
  printf '%s\0' "${files[@]}" | xargs -0 -n 16 "$CLANG_FORMAT" -i --style=file
  exit 0
fi

differ=()
for f in "${files[@]}"; do
  if ! "$CLANG_FORMAT" --dry-run --Werror --style=file "$f" >/dev/null 2>&1; then
    differ+=("$f")
  fi
done
if [ ${#differ[@]} -gt 0 ]; then
  echo "format: ${#differ[@]} of ${#files[@]} files differ from the style:" >&2
  printf '  %s\n' "${differ[@]}" >&2
  echo "format: run 'make format' (scripts/format.sh --fix) to apply it;" \
       "'$CLANG_FORMAT --dry-run FILE' shows where" >&2
  exit 1
fi
echo "format: ${#files[@]} files follow the style"
