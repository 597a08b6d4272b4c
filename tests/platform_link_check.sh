#!/usr/bin/env bash
# A platform that lacks a service must fail when libpkey is linked, naming the
# service, never at run time. Links libpkey's objects as libpkey.so is linked
# (every symbol resolved) against stand-ins for the platform services: once
# with all of them, then once without each service in turn. The optional
# services are left out of every link: libpkey must link without them.
#
# usage: platform_link_check.sh CC CXX PLATFORM_HEADER "OBJ;OBJ;..." [LIB...]
set -euo pipefail

cc=$1 cxx=$2 header=$3 objects=$4
shift 4
libs=("$@")
IFS=';' read -ra objs <<< "$objects"

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

mapfile -t services < <(sed -n 's/^PLATFORM_API [^(]*[ *]\([A-Za-z_][A-Za-z0-9_]*\)(.*/\1/p' "$header")
mapfile -t optional < <(sed -n 's/^PLATFORM_API_OPTIONAL [^(]*[ *]\([A-Za-z_][A-Za-z0-9_]*\)(.*/\1/p' "$header")
if [ ${#services[@]} -lt 20 ]; then
  echo "FAIL: found only ${#services[@]} services in $header"
  exit 1
fi

# Stand-ins: only the names matter to the linker.
stubs() {
  local left_out=$1 s
  for s in "${services[@]}"; do
    [ "$s" = "$left_out" ] || echo "void $s(void) {}"
  done
}

link() {
  stubs "$1" > "$work/stubs.c"
  "$cc" -c -fPIC -o "$work/stubs.o" "$work/stubs.c"
  "$cxx" -shared -o "$work/libpkey-check.so" "${objs[@]}" "$work/stubs.o" \
    -Wl,--no-undefined "${libs[@]}" > "$work/link.log" 2>&1
}

if ! link ""; then
  echo "FAIL: libpkey does not link against a platform with every service but the optional ones (${optional[*]}):"
  cat "$work/link.log"
  exit 1
fi

failures=0
for s in "${services[@]}"; do
  if link "$s"; then
    echo "FAIL: libpkey links without $s (the library does not use it, or it is found elsewhere)"
    failures=$((failures + 1))
  elif ! grep -q "undefined reference to \`$s'" "$work/link.log"; then
    echo "FAIL: the link without $s failed without naming it:"
    cat "$work/link.log"
    failures=$((failures + 1))
  fi
done
[ "$failures" -eq 0 ] || exit 1
echo "ok: libpkey needs all ${#services[@]} platform services, and a missing one fails the link by name;"
echo "    it links without the ${#optional[@]} optional ones (${optional[*]})"
