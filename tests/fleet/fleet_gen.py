"""Simulates a fleet from one host's rows: yesterday's first run and today's
changes of this host, written under N host identities, with a few changes of
each host's own. Prints JSONEachRow lines on stdout and the expected answers
of the README's queries as JSON on stderr.

usage: fleet_gen.py FIRST_RUN_ROWS DELTA_ROWS HOSTS
"""
import json
import sys

LOG4J = "org.apache.logging.log4j:log4j-core"


def main():
    first_path, delta_path, hosts = sys.argv[1], sys.argv[2], int(sys.argv[3])
    with open(first_path, encoding="utf-8") as f:
        first = [json.loads(l) for l in f]
    with open(delta_path, encoding="utf-8") as f:
        delta = [json.loads(l) for l in f]
    t0 = first[0]["collected_at"]
    t1 = delta[0]["collected_at"] if delta else t0
    # A clean baseline: every module verified, so the query's answer is the
    # hosts given a bad module below.
    for r in first + delta:
        if r["kind"] == "process_module" and r["fields"] != "{}":
            fields = json.loads(r["fields"])
            fields["verified"] = True
            r["fields"] = json.dumps(fields, separators=(",", ":"))
    first_lines = [json.dumps(r, separators=(",", ":")) for r in first]
    delta_lines = [json.dumps(r, separators=(",", ":")) for r in delta]
    ids = [(first[0]["host_id"], first[0]["host"])]
    expect = {"unverified": [], "log4j_vulnerable": [], "host17_changes": 0}
    out = sys.stdout
    for n in range(1, hosts + 1):
        hid, hname = f"host-{n:04d}", f"host{n}"

        def put(lines):
            for line in lines:
                out.write(line.replace(json.dumps(ids[0][0]), json.dumps(hid), 1)
                          .replace('"host":' + json.dumps(ids[0][1]), '"host":' + json.dumps(hname), 1) + "\n")

        def row(t, kind, key, change, name="", version="", path="", fields=None):
            out.write(json.dumps({"host_id": hid, "host": hname, "collected_at": t, "kind": kind, "key": key,
                                  "change": change, "name": name, "version": version, "path": path,
                                  "fields": json.dumps(fields or {}, separators=(",", ":"))},
                                 separators=(",", ":")) + "\n")
            return 1

        put(first_lines)
        put(delta_lines)
        changes = len(delta_lines)
        if n % 10 in (0, 5):
            jar = "/opt/app/app.jar!/BOOT-INF/lib/log4j-core-%s.jar"
            v = "2.14.1" if n % 10 == 0 else "2.17.1"
            lib = {"name": LOG4J, "version": v, "path": jar % v}
            row(t0, "thirdpart_dev_lib", lib["path"] + "|" + LOG4J, "added", LOG4J, v, lib["path"], lib)
            if n % 20 == 0:  # patched today
                fixed = {"name": LOG4J, "version": "2.17.1", "path": jar % "2.17.1"}
                changes += row(t1, "thirdpart_dev_lib", lib["path"] + "|" + LOG4J, "removed")
                changes += row(t1, "thirdpart_dev_lib", fixed["path"] + "|" + LOG4J, "added", LOG4J, "2.17.1",
                               fixed["path"], fixed)
            elif n % 10 == 0:
                expect["log4j_vulnerable"].append(hid)
        if n % 50 == 0:
            mod = {"path": "/tmp/.cache/libhook.so", "md5": "", "sha256": "", "company": "", "verified": False}
            changes += row(t1, "process_module", "process:1|x//tmp/.cache/libhook.so", "added", mod["path"], "",
                           mod["path"], mod)
            expect["unverified"].append(hid)
        if n == 17:
            expect["host17_changes"] = changes
    sys.stderr.write(json.dumps(expect) + "\n")


if __name__ == "__main__":
    main()
