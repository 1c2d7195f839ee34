#!/bin/sh
# The module's dynamic symbol table must be exactly the expected list: the
# facade, its locks, the two Lua entry points and the plug-in objects. Nothing
# of tolua++, Lua, Boost or the C++ library may leak, and the module must not
# depend on a Lua library (the host provides Lua).
#   check_exports.sh MODULE EXPECTED_LIST
set -u
module=$1
expected=$2
status=0
tmp=$(mktemp -d) || exit 1
trap 'rm -rf "$tmp"' EXIT

# "ADDRESS TYPE NAME" -> "NAME"; names may hold spaces once demangled.
nm -D --defined-only -C "$module" >"$tmp/nm" || { echo "FAIL: nm cannot read $module"; exit 1; }
sed -E 's/^[0-9a-fA-F]* *[A-Za-z] //' "$tmp/nm" | LC_ALL=C sort -u >"$tmp/actual"
grep -v -e '^#' -e '^$' "$expected" | LC_ALL=C sort -u >"$tmp/wanted"

if LC_ALL=C comm -23 "$tmp/actual" "$tmp/wanted" | grep . >"$tmp/extra"; then
    echo "FAIL: exported but not expected:"
    sed 's/^/  /' "$tmp/extra"
    status=1
fi
if LC_ALL=C comm -13 "$tmp/actual" "$tmp/wanted" | grep . >"$tmp/missing"; then
    echo "FAIL: expected but not exported:"
    sed 's/^/  /' "$tmp/missing"
    status=1
fi

# The setup point is initialised, writable data (nm: D), not read-only or BSS.
if ! grep -q ' D cplugin_api_setup_point$' "$tmp/nm"; then
    echo "FAIL: cplugin_api_setup_point is not an initialised writable data object:"
    grep 'cplugin_api_setup_point' "$tmp/nm" | sed 's/^/  /'
    status=1
fi

if readelf -d "$module" | grep 'NEEDED' | grep -i -e 'lua' -e 'tolua'; then
    echo "FAIL: the module must not depend on a Lua library"
    status=1
fi

[ $status -eq 0 ] && echo "ok: $(wc -l <"$tmp/actual") exported symbols as expected, no Lua dependency"
exit $status
