#!/bin/bash
# assetman-run and the example scripts, run as a user would run them.
#   check_runner.sh RUNNER MODULE EXAMPLES_DIR CASE
# CASE: inventory | json | errors
set -u
runner=$1
module=$2
examples=$3
case_name=$4
status=0
tmp=$(mktemp -d) || exit 1
trap 'rm -rf "$tmp"' EXIT

fail() {
    echo "FAIL: $*"
    status=1
}

# The twelve kinds, in the module's order.
kinds="process netlink service user sys_install_package auto_run_serv cron sys_module system
thirdpart_dev_lib windows_reg_autostart docker"

run() {
    "$runner" --module "$module" "$@" >"$tmp/out" 2>"$tmp/err"
}

# A process whose command line holds a byte that is not UTF-8, a quote, a
# backslash and a newline, as any user may start one.
start_odd_process() {
    (exec -a "$(printf 'odd\377"q\\b\nl')" sleep 900) &
    odd_pid=$!
    trap 'kill $odd_pid 2>/dev/null; rm -rf "$tmp"' EXIT
    sleep 0.2
}

case $case_name in
inventory)
    start_odd_process
    run "$examples/inventory.lua" --brief
    rc=$?
    [ $rc -eq 0 ] || { fail "inventory.lua --brief exited $rc"; cat "$tmp/err"; }
    for k in $kinds; do
        grep -Eq "^$k +rc=-?[0-9]+ " "$tmp/out" || fail "no summary line for $k"
    done
    # The registry kind does not exist here: answered at once with nothing.
    grep -Eq '^windows_reg_autostart +rc=0 +ok +0 records' "$tmp/out" ||
        fail "windows_reg_autostart should be rc=0 with 0 records"
    # The runner itself is a process of this host and shows in a full report.
    run "$examples/inventory.lua" --kind=process
    rc=$?
    [ $rc -eq 0 ] || { fail "inventory.lua --kind=process exited $rc"; cat "$tmp/err"; }
    if grep -Eq '^process +rc=0 ' "$tmp/out"; then
        grep -q "pid=$$ " "$tmp/out" || fail "the test's own shell (pid $$) is not in the process report"
        # One line per record: control bytes are escaped, quotes too.
        LC_ALL=C grep -aq "pid=$odd_pid .*cmd_line=\"odd.\\\\\"q\\\\\\\\b\\\\nl 900\"" "$tmp/out" ||
            fail "the odd command line is not shown escaped on its record's line"
        ! grep -aq '^l 900' "$tmp/out" || fail "a newline in a value breaks the record's line"
    fi
    run "$examples/inventory.lua" --kind=nosuchkind
    [ $? -ne 0 ] || fail "an unknown kind is not refused"
    grep -q "unknown kind 'nosuchkind'" "$tmp/err" || fail "no clear message for an unknown kind"
    ;;
json)
    start_odd_process
    run "$examples/inventory_json.lua"
    rc=$?
    [ $rc -eq 0 ] || { fail "inventory_json.lua exited $rc"; cat "$tmp/err"; }
    /usr/bin/python3 - "$tmp/out" "$odd_pid" $kinds <<'PY' || status=1
import json, sys
path, odd_pid, kinds = sys.argv[1], int(sys.argv[2]), sys.argv[3:]
with open(path, "rb") as f:
    doc = json.loads(f.read().decode("utf-8"))
bad = []
got = list(doc.get("kinds", {}).keys())
if got != kinds:
    bad.append("kinds %s, expected %s" % (got, kinds))
for k in kinds:
    d = doc["kinds"].get(k, {})
    if not isinstance(d.get("rc"), int):
        bad.append("%s: no integer rc" % k)
    if k in ("system", "docker"):
        if d.get("count") != (1 if d.get("rc") == 0 else 0):
            bad.append("%s: count does not match rc" % k)
    elif not isinstance(d.get("records"), list) or len(d["records"]) != d.get("count"):
        bad.append("%s: records is not a list of count entries" % k)
procs = doc["kinds"]["process"]
if procs["rc"] == 0:
    if not all(isinstance(p.get("modules"), list) for p in procs["records"]):
        bad.append("process records without a modules list")
    # Text survives exactly, but for the byte that is not UTF-8.
    odd = [p for p in procs["records"] if p.get("pid") == odd_pid]
    if len(odd) != 1 or odd[0].get("cmd_line") != 'odd\ufffd"q\\b\nl 900':
        bad.append("the odd process's command line: %r" % [p.get("cmd_line") for p in odd])
for b in bad:
    print("FAIL: " + b)
sys.exit(1 if bad else 0)
PY
    run "$examples/inventory_json.lua" --kind=windows_reg_autostart,docker --pretty
    [ $? -eq 0 ] || fail "inventory_json.lua --pretty exited non-zero"
    /usr/bin/python3 -m json.tool "$tmp/out" >/dev/null || fail "--pretty output is not JSON"
    grep -q '"records": \[\]' "$tmp/out" || fail "an empty list is not written as []"
    ;;
errors)
    # A script error: non-zero, message and traceback on stderr.
    cat >"$tmp/bad.lua" <<'LUA'
local function inner() error("deliberate failure") end
local function outer() inner() end
outer()
LUA
    run "$tmp/bad.lua"
    [ $? -ne 0 ] || fail "a failing script exits 0"
    grep -q 'bad.lua:1: deliberate failure' "$tmp/err" || fail "no error message on stderr"
    grep -q 'stack traceback:' "$tmp/err" || fail "no traceback on stderr"
    grep -q "in function 'outer'" "$tmp/err" || fail "the traceback does not show the calling function"

    # A syntax error: non-zero with the parser's message.
    echo 'local x = = 1' >"$tmp/syntax.lua"
    run "$tmp/syntax.lua"
    [ $? -ne 0 ] || fail "a script that does not parse exits 0"
    grep -q 'syntax.lua:1:' "$tmp/err" || fail "no parse error on stderr"

    # Arguments reach the script as arg[] and ..., and Debian's C modules load.
    cat >"$tmp/args.lua" <<'LUA'
local n = select("#", ...)
print(arg[0]:match("[^/]*$"), n, arg[1], arg[2], #arg, (select(2, ...)))
print(type(require("cjson").encode), type(api.assetman.collect_init), tostring(assetman))
LUA
    run "$tmp/args.lua" one "two words"
    [ $? -eq 0 ] || { fail "the argument script failed"; cat "$tmp/err"; }
    printf 'args.lua\t2\tone\ttwo words\t2\ttwo words\nfunction\tfunction\tnil\n' >"$tmp/want"
    cmp -s "$tmp/out" "$tmp/want" || { fail "script arguments or modules wrong:"; cat "$tmp/out"; }

    # os.exit's code is the runner's.
    echo 'os.exit(7)' >"$tmp/exit.lua"
    run "$tmp/exit.lua"
    rc=$?
    [ $rc -eq 7 ] || fail "os.exit(7) gave $rc"

    # No module, or a library that is not the plug-in: non-zero, clear message.
    "$runner" --module "$tmp/none.so" "$tmp/exit.lua" >/dev/null 2>"$tmp/err"
    [ $? -ne 0 ] || fail "a missing module is not an error"
    grep -q 'cannot load module' "$tmp/err" || fail "no clear message for a missing module"
    "$runner" --module "$(dirname "$module")/libasset_manager_linux.so" "$tmp/exit.lua" >/dev/null 2>"$tmp/err"
    [ $? -ne 0 ] || fail "a library without the setup point is accepted"
    grep -q 'has no cplugin_api_setup_point' "$tmp/err" || fail "no clear message for a missing setup point"
    ASSETMAN_MODULE="$module" "$runner" "$tmp/args.lua" >/dev/null 2>&1 ||
        fail "the module is not taken from ASSETMAN_MODULE"
    "$runner" >/dev/null 2>&1
    [ $? -ne 0 ] || fail "no script given is not an error"
    ;;
*)
    echo "unknown case $case_name"
    exit 2
    ;;
esac

[ $status -eq 0 ] && echo "ok: $case_name"
exit $status
