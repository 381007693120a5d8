#!/usr/bin/env python3
"""Judges the outputs of one lab run (see guest-*.sh): prints each check and its
verdict, the steps' outputs that matter, and exits 1 when any check failed."""
import glob
import json
import os
import re
import sys

import jsonschema

SCENARIO, OUT, SCHEMAS = sys.argv[1], sys.argv[2], sys.argv[3]
failures = []


def read(name, ext="out"):
    try:
        with open(f"{OUT}/{name}.{ext}", encoding="utf-8") as f:
            return f.read()
    except FileNotFoundError:
        return ""


def status(name):
    text = read(name, "rc").strip()
    return int(text) if text else None


def check(what, ok, detail=""):
    print(("ok   " if ok else "FAIL ") + what + ("" if ok else f": {detail}"))
    if not ok:
        failures.append(what)


def show(name):
    print(f"--- {name} (exit {status(name)})")
    print(read(name).rstrip())
    if read(name, "err"):
        print("--- stderr: " + read(name, "err").rstrip())


def validated(name, schema):
    with open(f"{SCHEMAS}/{schema}", encoding="utf-8") as f:
        validator = jsonschema.Draft202012Validator(json.load(f))
    try:
        document = json.loads(read(name))
        validator.validate(document)
        return document
    except (ValueError, jsonschema.ValidationError) as e:
        check(f"{name} conforms to {schema}", False, str(e).splitlines()[0])
        return None


def shown_paths(name):
    """dm_st, chk_st and H:C:T:L per device from "multipathd show paths"."""
    paths = {}
    for line in read(name).splitlines()[1:]:
        words = line.split()
        if len(words) >= 7:
            paths[words[1]] = {"hcil": words[0], "dm": words[4], "chk": words[5]}
    return paths


def tool_paths(topology):
    return {p["device"]: p for m in topology["maps"] for g in m["groups"] for p in g["paths"]}


def compare_with_listings(topology):
    headers = re.findall(r"^(\S+) \((\w+)\) (dm-\d+) (\S+?),(\S+)", read("ll"), re.M)
    check("maps and WWIDs as multipath -ll says",
          [(m["name"], m["wwid"], m["dm"], m["vendor"], m["product"]) for m in topology["maps"]] ==
          [tuple(h) for h in headers], f"{headers} vs {topology['maps']}")
    shown = json.loads(read("showmaps"))["maps"]
    for ours, theirs in zip(topology["maps"], shown):
        check(f"{ours['name']}: name, WWID, dm, features as multipathd says",
              (ours["name"], ours["wwid"], ours["dm"], ours["features"]) ==
              (theirs["name"], theirs["uuid"], theirs["sysfs"], theirs["features"]), theirs)
        groups = [[(p["dev"], p["dev_t"], p["dm_st"], p["chk_st"]) for p in g["paths"]] for g in theirs["path_groups"]]
        mine = [[(p["device"], p["devt"], p["dmState"], p["checkerState"]) for p in g["paths"]] for g in ours["groups"]]
        check(f"{ours['name']}: groups and paths as multipathd says", mine == groups, f"{mine} vs {groups}")
        check(f"{ours['name']}: group priorities as multipathd says",
              [g["priority"] for g in ours["groups"]] == [g["pri"] for g in theirs["path_groups"]])
    check("same number of maps as multipathd", len(shown) == len(topology["maps"]))


def path_switch():
    check("--version", read("version") == "PathPlannerTopology 5.2.8.0\n", read("version"))
    topology = validated("topology", "topology-v2.schema.json")
    if topology is None:
        return
    compare_with_listings(topology)
    # A path given the wrong adapter port shows below: --offline by host0's port must change
    # exactly host0's paths.
    paths = tool_paths(topology)
    port0 = sorted(d for d, p in paths.items() if p["host"] == 0)
    check("adapter 0 has paths", len(port0) >= 2, port0)
    before = shown_paths("paths-before")
    check("all paths active before", all(p["dm"] == "active" for p in before.values()), before)

    result = validated("offline", "path-switch-result.schema.json")
    check("--offline exit 0", status("offline") == 0)
    check("--offline changed exactly adapter 0's paths",
          result is not None and sorted(c["device"] for c in result["changed"]) == port0, result)
    after = shown_paths("paths-offline")
    check("multipathd: adapter 0's paths failed, the others active",
          all((p["dm"] == "failed") == (d in port0) for d, p in after.items()), after)

    # The refusal's one line naming the maps is TopologyE2eTest's.
    check("last-path refusal exit 174", status("refusal") == 174)
    # The path checker may change a checker state in between; the dm states are the refusal's.
    dm_states = lambda paths: {d: p["dm"] for d, p in paths.items()}
    check("refusal changed nothing", dm_states(shown_paths("paths-refused")) == dm_states(after),
          shown_paths("paths-refused"))
    later = shown_paths("paths-later")
    check("failed paths stay failed past the path checker",
          all((p["dm"] == "failed") == (d in port0) for d, p in later.items()), later)

    check("--online exit 0", status("online") == 0)
    # What the activity log says of each change and of the refusal is TopologyE2eTest's: it does not
    # depend on the kernel. The log is still shown above for whoever reads a failed run.
    check("--online brings every path back", all(p["dm"] == "active" for p in shown_paths("paths-after").values()))


def queueing():
    before = validated("topology-before", "topology-v2.schema.json")
    after = validated("topology-after", "topology-v2.schema.json")
    if before is None or after is None:
        return
    check("maps queue before", all(m["queueing"] is True for m in before["maps"]) and before["maps"], before)
    result = validated("switch", "path-switch-result.schema.json")
    check("--fail-if-no-path exit 0", status("switch") == 0)
    check("every map switched", result is not None and
          sorted(c["map"] for c in result["changed"]) == sorted(m["name"] for m in before["maps"]), result)
    check("dmsetup table: no queue_if_no_path left", "queue_if_no_path" not in read("table-after"))
    check("maps no longer queue", all(m["queueing"] is False for m in after["maps"]), after)
    # multipathd may put its configured queueing back on a map it reloads, so a second run
    # may switch a map again; it must still succeed and fail nothing.
    check("second run succeeds", status("switch-again") == 0 and re.search(r"\bfailed\b", read("switch-again")) is None)


# Every step's output first, in the order the steps ran, then the verdicts.
for step in sorted(glob.glob(f"{OUT}/*.rc"), key=os.path.getmtime):
    show(os.path.basename(step)[:-3])
print("--- activity.log\n" + read("activity", "log").rstrip())
{"path-switch": path_switch, "queueing": queueing}[SCENARIO]()
print(f"{len(failures)} of the checks failed" if failures else "all checks passed")
sys.exit(1 if failures else 0)
