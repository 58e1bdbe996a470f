"""Turns the benchmarks' JSON into docs/performance.md: medians, each beside its peer of the same run."""
import json
import platform
import sys

PEERS = {"logItem": "peerOstringstream"}
TITLES = {"logItem": "one log line, built and dispatched", "peerOstringstream": "the same text in a std::ostringstream"}

results = json.load(open(sys.argv[1]))
model = next((line.split(":")[1].strip() for line in open("/proc/cpuinfo") if line.startswith("model name")), "?")
medians = {}
for row in results["benchmarks"]:
    if row["aggregate_name"] == "median":
        name = row["run_name"].split("/")[0]
        medians[name, row["threads"]] = row["real_time"]

print("# Performance\n")
print("Written by `scripts/bench`: medians of 5 interleaved repetitions, ns of wall time an item, all threads together.\n")
print(f"Machine: {model}, {results['context']['num_cpus']} processors, {platform.system()} {platform.machine()}.\n")
print("| what | threads | ns | peer | ns | ratio |\n|---|---|---|---|---|---|")
for (name, threads), time in sorted(medians.items()):
    if name in PEERS:
        peer = medians[PEERS[name], threads]
        print(f"| {TITLES[name]} | {threads} | {time:.0f} | {TITLES[PEERS[name]]} | {peer:.0f} | {time / peer:.2f} |")
