#!/usr/bin/env bash
# The fleet store: this host's rows (a first run yesterday, the changes since
# today) for 1,000 simulated hosts, loaded into a ClickHouse server started on
# loopback from a minimal configuration, and the README's three questions
# answered by query.
#   check_fleet.sh RUNNER REPO_DIR [HOSTS]
set -euo pipefail
runner=$1 repo=$2 hosts=${3:-1000}
server=$(command -v clickhouse-server || echo /usr/sbin/clickhouse-server)
[ -x "$server" ] || server=$(command -v clickhouse)" server"
work=$(mktemp -d /tmp/assetman-fleet.XXXXXX)
pid=""
cleanup() {
  if [ -n "$pid" ]; then kill "$pid" 2>/dev/null || true; for _ in $(seq 50); do kill -0 "$pid" 2>/dev/null || break; sleep 0.2; done; kill -9 "$pid" 2>/dev/null || true; fi
  [ -n "${sleeper:-}" ] && kill "$sleeper" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

# A free loopback port pair for the native and HTTP interfaces.
port=$(/usr/bin/python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])')
http=$(/usr/bin/python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])')
mkdir -p "$work/data" "$work/tmp" "$work/files"
cat > "$work/config.xml" <<XML
<?xml version="1.0"?>
<yandex>
  <logger><level>warning</level><log>$work/server.log</log><errorlog>$work/server.err.log</errorlog><console>0</console></logger>
  <listen_host>127.0.0.1</listen_host>
  <tcp_port>$port</tcp_port>
  <http_port>$http</http_port>
  <path>$work/data/</path>
  <tmp_path>$work/tmp/</tmp_path>
  <user_files_path>$work/files/</user_files_path>
  <users_config>$work/users.xml</users_config>
  <default_profile>default</default_profile>
  <default_database>default</default_database>
  <mark_cache_size>67108864</mark_cache_size>
</yandex>
XML
cat > "$work/users.xml" <<'XML'
<?xml version="1.0"?>
<yandex>
  <profiles><default><max_memory_usage>4000000000</max_memory_usage></default></profiles>
  <users><default><password></password><networks><ip>127.0.0.1</ip></networks><profile>default</profile><quota>default</quota></default></users>
  <quotas><default><interval><duration>3600</duration><queries>0</queries><errors>0</errors><result_rows>0</result_rows><read_rows>0</read_rows><execution_time>0</execution_time></interval></default></quotas>
</yandex>
XML
$server --config-file="$work/config.xml" >"$work/server.out" 2>&1 &
pid=$!
ch() { clickhouse-client --host 127.0.0.1 --port "$port" "$@"; }
for _ in $(seq 150); do ch --query 'SELECT 1' >/dev/null 2>&1 && break; sleep 0.2; done
ch --query 'SELECT 1' >/dev/null
ch --multiquery < "$repo/examples/rows_table.sql"

# This host: the first run a day ago, then what changed since (a process
# started in between).
t0=$(date -u -d '26 hours ago' '+%Y-%m-%d %H:%M:%S')
t1=$(date -u -d '1 hour ago' '+%Y-%m-%d %H:%M:%S')
"$runner" "$repo/examples/rows.lua" --since "$work/state" --time="$t0" > "$work/first.jsonl" 2>"$work/first.err"
sleep 300 & sleeper=$!
"$runner" "$repo/examples/rows.lua" --since "$work/state" --time="$t1" > "$work/delta.jsonl" 2>"$work/delta.err"
"$runner" "$repo/examples/rows.lua" > "$work/snapshot.jsonl" 2>/dev/null
grep -q "\"kind\":\"process\",\"key\":\"$sleeper|" "$work/delta.jsonl" || { echo "the new process is not in the delta"; exit 1; }

rows=$(wc -l < "$work/snapshot.jsonl"); bytes=$(wc -c < "$work/snapshot.jsonl")
drows=$(wc -l < "$work/delta.jsonl"); dbytes=$(wc -c < "$work/delta.jsonl")
echo "per host: snapshot $rows rows, $bytes bytes ($(gzip -c "$work/snapshot.jsonl" | wc -c) gzipped); delta $drows rows, $dbytes bytes"

start=$(date +%s.%N)
/usr/bin/python3 "$repo/tests/fleet/fleet_gen.py" "$work/first.jsonl" "$work/delta.jsonl" "$hosts" 2>"$work/expect.json" \
  | ch --query 'INSERT INTO assets FORMAT JSONEachRow'
end=$(date +%s.%N)
loaded=$(ch --query 'SELECT count() FROM assets')
echo "loaded $loaded rows for $hosts hosts in $(echo "$end - $start" | bc) s: $(echo "$loaded / ($end - $start)" | bc) rows/s"

q_unverified="SELECT DISTINCT host_id FROM (
  SELECT host_id, key, argMax(change, collected_at) AS c, argMax(fields, collected_at) AS f
  FROM assets WHERE kind = 'process_module' GROUP BY host_id, key)
WHERE c != 'removed' AND visitParamExtractBool(f, 'verified') = 0 ORDER BY host_id"
q_log4j="SELECT DISTINCT host_id FROM (
  SELECT host_id, key, argMax(change, collected_at) AS c, argMax(version, collected_at) AS v, max(name) AS n
  FROM assets WHERE kind = 'thirdpart_dev_lib' GROUP BY host_id, key)
WHERE n = 'org.apache.logging.log4j:log4j-core' AND c != 'removed' AND toUInt32OrZero(splitByChar('.', v)[1]) * 1000000
  + toUInt32OrZero(splitByChar('.', v)[2]) * 1000 + toUInt32OrZero(splitByChar('.', v)[3]) < 2017000
ORDER BY host_id"
q_host17="SELECT count() FROM assets WHERE host_id = 'host-0017'
  AND collected_at >= now() - INTERVAL 1 DAY AND change IN ('added', 'changed', 'removed')"

fail=0
check() {  # check NAME GOT EXPECTED
  if [ "$2" = "$3" ]; then echo "ok   $1 ($(printf '%s\n' "$2" | grep -c .) lines)"; else
    echo "FAIL $1"; echo " got: $(echo $2 | head -c 300)"; echo " expected: $(echo $3 | head -c 300)"; fail=1; fi
}
expected() { /usr/bin/python3 -c 'import json,sys; v=json.load(open(sys.argv[1]))[sys.argv[2]]; print("\n".join(v) if isinstance(v,list) else v)' "$work/expect.json" "$1"; }
check "hosts running an unverified module" "$(ch --query "$q_unverified")" "$(expected unverified)"
check "hosts carrying log4j-core below 2.17" "$(ch --query "$q_log4j")" "$(expected log4j_vulnerable)"
check "changes on host 17 since yesterday" "$(ch --query "$q_host17")" "$(expected host17_changes)"
exit $fail
