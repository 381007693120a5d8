#!/usr/bin/env bash
# Runs the benchmarks and the start-up comparison once and prints every figure the
# tool is held to beside its goal, one line each:
#   bench/ratios.sh [build dir]        (default: build, configured with benchmarks on)
# Builds nothing: the build dir must already hold PathPlanner and the catalogues;
# TraceBench, TopologyBench and PoolBench count when they are there. Needs root (a private mount namespace
# shows the build's installation at /opt/ZOR/QLX), hyperfine (./deps.sh bench) and
# python3. Exit status 0 when every figure is within its goal, 1 when one is not
# (or missing), 2 when it cannot run at all.
#   PP_RATIOS_RUNS      start-up runs per command, in five rounds (default 300)
#   PP_RATIOS_REPS      repetitions of each benchmark, the median counts (default 3)
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"

# Second stage, inside the private mount namespace: the installation is shown at
# /opt/ZOR/QLX, where the tool looks for it, and nothing reaches the host's /opt.
if [ "${1:-}" = --inside ]; then
  prefix=$2 out=$3 runs=$4
  if [ ! -d /opt/ZOR/QLX ]; then
    mount -t tmpfs pp-ratios /opt
    mkdir -p /opt/ZOR/QLX
  fi
  mount --bind "$prefix" /opt/ZOR/QLX
  tool=/opt/ZOR/QLX/agent/bin/PathPlanner
  "$tool" -multipath 9 >/dev/null 2>&1 && status=0 || status=$?
  if [ "$status" -ne 5 ]; then
    echo "ratios: '$tool -multipath 9' exited $status, expected 5" >&2
    exit 2
  fi
  # Short rounds of all three commands, so that a change in the machine's load
  # between commands moves one round's ratios and not the median of all rounds.
  for round in 1 2 3 4 5; do
    hyperfine -N --style none --warmup 10 --runs "$((runs / 5))" --export-json "$out-$round.json" -i \
      /bin/true "$tool -version" "$tool -multipath 9" >/dev/null 2>"$out.err" || { cat "$out.err" >&2; exit 2; }
  done
  exit 0
fi

build="$(cd "${1:-build}" && pwd)"
runs=${PP_RATIOS_RUNS:-300}
reps=${PP_RATIOS_REPS:-3}
for need in hyperfine python3 unshare; do
  command -v "$need" >/dev/null || { echo "ratios: $need not found (./deps.sh bench)" >&2; exit 2; }
done
[ "$(id -u)" -eq 0 ] || { echo "ratios: needs root for a private mount namespace" >&2; exit 2; }
[ -x "$build/PathPlanner/PathPlanner" ] || { echo "ratios: no PathPlanner in $build; build it first" >&2; exit 2; }

work="$(mktemp -d /tmp/pp-ratios-XXXXXX)"
trap 'rm -rf "$work"' EXIT

# cmake --install copies what the build made and compiles nothing; stripped, as the
# packages ship the tool.
cmake --install "$build" --strip --prefix "$work/QLX/agent" >/dev/null
unshare -m --propagation private "$here/ratios.sh" --inside "$work/QLX" "$work/startup" "$runs"

bench_args=(--benchmark_format=json --benchmark_repetitions="$reps" --benchmark_report_aggregates_only=true)
for b in TraceBench TopologyBench PoolBench; do
  # A benchmark not built shows as "missing" on its lines.
  [ -x "$build/bench/$b" ] || continue
  (cd "$work" && "$build/bench/$b" "${bench_args[@]}" >"$work/$b.json" 2>/dev/null) ||
    echo "ratios: $b failed" >&2
done

# One line per figure: name, value, goal, verdict. A benchmark is found by its
# name; the pool's are matched under their current and their earlier names.
python3 - "$work" <<'PY'
import json, re, sys

work = sys.argv[1]
UNIT_NS = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}


def load(name):
    try:
        with open(f"{work}/{name}.json") as f:
            return json.load(f)
    except (OSError, ValueError):
        return None


def bench(results, patterns):
    """The median (or only) run of the first benchmark matching a pattern."""
    runs = (results or {}).get("benchmarks", [])
    for pattern in patterns:
        found = [r for r in runs if re.fullmatch(pattern, r.get("run_name", r["name"]))]
        medians = [r for r in found if r.get("aggregate_name") == "median"]
        plain = [r for r in found if r.get("run_type") == "iteration"]
        if medians or plain:
            return (medians or plain)[0]
    return None


def cpu_ns(run):
    return run["cpu_time"] * UNIT_NS[run["time_unit"]] if run else None


def startup_rounds(command_end):
    """The command's median wall time in each round of the start-up comparison."""
    medians = []
    for round_number in range(1, 6):
        for r in (load(f"startup-{round_number}") or {}).get("results", []):
            if r["command"].endswith(command_end):
                medians.append(r["median"])
    return medians


def median(values):
    values = sorted(values)
    return values[len(values) // 2] if values else None


def ratio(a, b):
    return a / b if a is not None and b else None


failures = 0


def report(label, value, shown, goal, within):
    global failures
    if value is None:
        verdict, shown = "missing", "missing"
    else:
        verdict = "ok" if within(value) else "FAIL"
    failures += verdict != "ok"
    print(f"{label:<28} {shown:<42} {goal:<17} {verdict}")


def report_ratio(label, value, against, limit, detail=""):
    shown = f"{value:.2f}x {against}{detail}" if value is not None else ""
    report(label, value, shown, f"goal <= {limit:.2f}x", lambda v: v <= limit)


bare = startup_rounds("/bin/true")
for label, end in (("startup -version", " -version"), ("startup rejected request", " -multipath 9")):
    tool = startup_rounds(end)
    rounds = [t / b for t, b in zip(tool, bare)] if len(tool) == len(bare) else []
    detail = f" ({median(tool) * 1e3:.2f} vs {median(bare) * 1e3:.2f} ms)" if rounds else ""
    report_ratio(label, median(rounds), "/bin/true", 1.3, detail)

trace = load("TraceBench")
fprintf = cpu_ns(bench(trace, [r"BM_Fprintf\w*"]))
report_ratio("trace record plain file", ratio(cpu_ns(bench(trace, [r"BM_PlainFileRecord"])), fprintf), "fprintf+fflush", 1.2)
report_ratio("trace record wrapping file", ratio(cpu_ns(bench(trace, [r"BM_WrappingFileRecord"])), fprintf),
             "fprintf+fflush", 2.0)

topology = load("TopologyBench")
small, medium, large = (bench(topology, [rf"BM_ParseTopology/{n}"]) for n in (10000, 100000, 1000000))
ms = cpu_ns(medium) / 1e6 if medium else None
report("topology 100k paths CPU", ms, f"{ms:.1f} ms" if ms else "", "goal <= 25 ms", lambda v: v <= 25)
rate = medium["bytes_per_second"] / 1e6 if medium and "bytes_per_second" in medium else None
report("topology 100k paths rate", rate, f"{rate:.0f} MB/s" if rate else "", "goal >= 400 MB/s", lambda v: v >= 400)
per_path = ratio(cpu_ns(large) / 1e6 if large else None, cpu_ns(small) / 1e4 if small else None)
report_ratio("topology linearity 10k..1M", per_path, "per path at 1M vs 10k", 1.5)
# What making the records costs with no text read at all: the floor under the goal.
def info_ms(label, ns):
    if ns:
        print(f"{label:<28} {f'{ns / 1e6:.1f} ms':<42} {'(no goal)':<17} info")


info_ms("topology 100k records alone", cpu_ns(bench(topology, [r"BM_RecordsAlone/100000"])))
# The same, once in a fresh process as the tool runs: its time is the child's CPU,
# reported as the benchmark's manual time.
for label, name in (("topology 100k, fresh process", "BM_ParseTopologyFreshProcess"),
                    ("records alone, fresh process", "BM_RecordsAloneFreshProcess")):
    run = bench(topology, [rf"{name}/100000(/manual_time)?"])
    info_ms(label, run["real_time"] * UNIT_NS[run["time_unit"]] if run else None)

pool = load("PoolBench")
malloc_pair = cpu_ns(bench(pool, [r"BM_MallocPair", r"BM_AllocFreePairSingleThreaded<SystemCalls>(/64)?",
                                  r"BM_AllocFreePair<SystemCalls>/64"]))
single = cpu_ns(bench(pool, [r"BM_PoolPair", r"BM_AllocFreePairSingleThreaded<PoolCalls>(/64)?"]))
locked = cpu_ns(bench(pool, [r"BM_PoolPairLocked", r"BM_AllocFreePair<PoolCalls>/64"]))
report_ratio("pool pair single-threaded", ratio(single, malloc_pair), "malloc", 1.5)
report_ratio("pool pair locked", ratio(locked, malloc_pair), "malloc", 3.0)
sys.exit(1 if failures else 0)
PY
